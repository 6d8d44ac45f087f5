# What the shared object exports and how it is told: the one function that exports.map names. What
# it takes from the host stays undefined until the host loads it.
#   ZMQWRITER_EXPORT_FLAGS  flags for the compiler that links
#   ZMQWRITER_EXPORT_LIST   the file with the list, for dependencies

if(APPLE)
  set(ZMQWRITER_EXPORT_LIST ${CMAKE_CURRENT_LIST_DIR}/exports.darwin)
  set(ZMQWRITER_EXPORT_FLAGS
    -Wl,-undefined,dynamic_lookup -Wl,-exported_symbols_list,${ZMQWRITER_EXPORT_LIST})
else()
  set(ZMQWRITER_EXPORT_LIST ${CMAKE_CURRENT_LIST_DIR}/exports.map)
  set(ZMQWRITER_EXPORT_FLAGS -Wl,--version-script=${ZMQWRITER_EXPORT_LIST})
endif()
