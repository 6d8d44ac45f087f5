# The two fixed places of the plug-in (src/Paths.h).
#   ZMQWRITER_PATH_DEFINITIONS   definitions for the places that are not the defaults, with -D
#   zmqwriter_fixed_path(VAR X)  the place X (INSTALL_PREFIX or SPOOL_FOLDER) that is compiled in

set(ZMQWRITER_PATH_DEFINITIONS)
foreach(path INSTALL_PREFIX SPOOL_FOLDER)
  if(ZMQWRITER_${path})
    list(APPEND ZMQWRITER_PATH_DEFINITIONS -DZMQWRITER_${path}="${ZMQWRITER_${path}}")
  endif()
endforeach()

set(ZMQWRITER_PATHS_HEADER ${CMAKE_CURRENT_LIST_DIR}/../src/Paths.h)

function(zmqwriter_fixed_path variable path)
  set(value "${ZMQWRITER_${path}}")
  if(NOT value)
    # The defaults stand in one place, the header.
    file(STRINGS ${ZMQWRITER_PATHS_HEADER} line REGEX "#define ZMQWRITER_${path} ")
    string(REGEX REPLACE ".*\"(.*)\".*" "\\1" value "${line}")
  endif()
  set(${variable} "${value}" PARENT_SCOPE)
endfunction()
