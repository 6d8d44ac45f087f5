# What `cmake --install` of a build without a host puts below the prefix: the program with its manual
# pages and shell completions, and the plug-in as the folder that a host finds with BRO_PLUGIN_PATH.

install(TARGETS zmqwriter_program RUNTIME DESTINATION bin)
install(DIRECTORY ${CMAKE_BINARY_DIR}/plugin/
        DESTINATION lib/bro/plugins/Dravenholt_ZMQWriter USE_SOURCE_PERMISSIONS)
include(ManualPages)
include(ShellCompletion)
include(InstallFolders)
