# Debian packages through CPack, one a component: libtqcore0 (the shared libraries, named after
# the soname), libtqcore-dev (headers, the .so links, the CMake package, tqcore.pc) and
# tqcore-tools (the tqcore command). ./package.sh builds them from a release tree.

set(TQCORE_DEB_NAMES runtime libtqcore${PROJECT_VERSION_MAJOR} dev libtqcore-dev tools tqcore-tools)

# Every package carries the copyright file and the changelog that Debian asks of each.
set(TQCORE_DEB_CHANGELOG ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.gz)
file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/debian)
execute_process(COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/changelog
                OUTPUT_FILE ${TQCORE_DEB_CHANGELOG})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/changelog)
set(components runtime dev)
if(TQCORE_BUILD_TOOLS)
  list(APPEND components tools)
endif()
foreach(component IN LISTS components)
  list(FIND TQCORE_DEB_NAMES ${component} at)
  math(EXPR at "${at} + 1")
  list(GET TQCORE_DEB_NAMES ${at} package)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  install(FILES cmake/debian/copyright ${TQCORE_DEB_CHANGELOG}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tqcore)
set(CPACK_PACKAGE_VENDOR "The tqcore developers")
set(CPACK_PACKAGE_CONTACT "tqcore developers <tqcore@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE https://example.org/tqcore)

# Dependencies on the system's libraries come from the binaries themselves; the tools' own use
# of libtqcore is found in the build tree and becomes an exact-version dependency below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "foundation library: errors, time, results, diagnostics, hardware, text, keys
The shared libraries of tqcore: one error model, time values, asynchronous
results, crash reports and dumps, processor facts and thread placement, Unicode
conversion, UUIDs and interned keys.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The loader cache is refreshed by dpkg's ldconfig trigger, not by maintainer scripts.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_COMPONENT_DEV_DESCRIPTION
    "foundation library: errors, time, results, diagnostics (development files)
Headers, the linker names of the shared libraries, the CMake package
tqcore::tqcore and the pkg-config file tqcore.pc.")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The public headers include ACE's and hand out its types; Boost serves the consumer's build.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libace-dev, libboost-dev")

set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "foundation library: errors, time, results, diagnostics (command-line tool)
The tqcore command: explains error codes and errno values, checks and converts
UTF-8, inspects UUIDs and times, reports the processor and prints the stack.")
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)

set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_CURRENT_BINARY_DIR}/packages)
include(CPack)
