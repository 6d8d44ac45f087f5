# What the builds of the plug-in with and without a host share.
#   ZMQWRITER_FIXED_INSTALL_PREFIX, ZMQWRITER_FIXED_SPOOL_FOLDER   the places that are compiled in
#   ZMQWRITER_PATH_DEFINITIONS  definitions for those that are not the defaults, with -D
#   ZMQWRITER_EXPORT_FLAGS      flags for the compiler that links: of the shared object's own symbols
#                               it exports what the list names; the host's stay undefined
#   ZMQWRITER_EXPORT_LIST       the file with the list, for dependencies

set(ZMQWRITER_PATH_DEFINITIONS)
foreach(path INSTALL_PREFIX SPOOL_FOLDER)
  if(ZMQWRITER_${path})
    set(ZMQWRITER_FIXED_${path} "${ZMQWRITER_${path}}")
    list(APPEND ZMQWRITER_PATH_DEFINITIONS -DZMQWRITER_${path}="${ZMQWRITER_${path}}")
  else()
    # The defaults stand in one place, the header.
    file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/../src/Paths.h line REGEX "#define ZMQWRITER_${path} ")
    string(REGEX REPLACE ".*\"(.*)\".*" "\\1" ZMQWRITER_FIXED_${path} "${line}")
  endif()
endforeach()

if(APPLE)
  set(ZMQWRITER_EXPORT_LIST ${CMAKE_CURRENT_LIST_DIR}/exports.darwin)
  set(ZMQWRITER_EXPORT_FLAGS
    -Wl,-undefined,dynamic_lookup -Wl,-exported_symbols_list,${ZMQWRITER_EXPORT_LIST})
else()
  set(ZMQWRITER_EXPORT_LIST ${CMAKE_CURRENT_LIST_DIR}/exports.map)
  set(ZMQWRITER_EXPORT_FLAGS -Wl,--version-script=${ZMQWRITER_EXPORT_LIST})
endif()
