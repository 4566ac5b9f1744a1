# Installs the built library into a fresh prefix (or takes PREFIX, a tree already installed,
# such as the Debian packages unpacked), then builds and runs the consumer project against it
# twice: through the CMake package and through pkg-config.
# Then builds the examples against the same installed tree and runs each.
# Arguments: BUILD_DIR (the tqcore build) or PREFIX, LIBDIR (the library folder below the
# prefix), SOURCE_DIR (this folder), EXAMPLES_DIR (the examples), WORK_DIR (scratch).
file(REMOVE_RECURSE ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}")
  endif()
endfunction()

if(PREFIX)
  set(prefix ${PREFIX})
else()
  set(prefix ${WORK_DIR}/prefix)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
endif()

# The installed tool starts from a prefix the loader has never heard of, and works.
if(EXISTS ${prefix}/bin/tqcore)
  run(${prefix}/bin/tqcore --version)
  run(${prefix}/bin/tqcore uuid --sequential)
  message(STATUS "installed tool ran from ${prefix}")
endif()

foreach(mode cmake pkgconfig)
  set(build ${WORK_DIR}/consumer-${mode})
  if(mode STREQUAL "pkgconfig")
    set(use_pkg_config ON)
  else()
    set(use_pkg_config OFF)
  endif()
  run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${prefix}/${LIBDIR}/pkgconfig
      ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${build} -G Ninja
      -DCMAKE_PREFIX_PATH=${prefix} -DUSE_PKG_CONFIG=${use_pkg_config})
  run(${CMAKE_COMMAND} --build ${build})
  run(${build}/consumer)
  message(STATUS "consumer built and ran through ${mode}")
endforeach()

if(EXAMPLES_DIR)
  set(build ${WORK_DIR}/examples)
  run(${CMAKE_COMMAND} -S ${EXAMPLES_DIR} -B ${build} -G Ninja -DCMAKE_PREFIX_PATH=${prefix})
  run(${CMAKE_COMMAND} --build ${build})
  foreach(example async_result errors time_text keys_and_uuids server_main cpu_report everyday)
    run(${build}/${example})
  endforeach()
  run(${build}/base64_file ${EXAMPLES_DIR}/CMakeLists.txt)
  if(EXISTS ${build}/matchers_example_test)
    run(${build}/matchers_example_test)
  endif()
  message(STATUS "examples built and ran against the installed tree")
endif()
