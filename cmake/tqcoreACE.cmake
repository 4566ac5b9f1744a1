# Finds ACE, which Debian's libace-dev ships without a CMake package, and offers it as the
# imported target tqcore::ACE. Used by the build and by the installed tqcoreConfig.cmake.
if(NOT TARGET tqcore::ACE)
  find_path(TQCORE_ACE_INCLUDE_DIR ace/ACE.h)
  find_library(TQCORE_ACE_LIBRARY ACE)
  if(TQCORE_ACE_INCLUDE_DIR AND TQCORE_ACE_LIBRARY)
    add_library(tqcore::ACE UNKNOWN IMPORTED)
    set_target_properties(tqcore::ACE PROPERTIES
      IMPORTED_LOCATION "${TQCORE_ACE_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${TQCORE_ACE_INCLUDE_DIR}")
  endif()
endif()
