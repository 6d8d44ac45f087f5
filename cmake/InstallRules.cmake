# What `cmake --install` of a build without a host puts below the prefix: the program with its manual
# pages and shell completions, and the plug-in that `zmqwriter replay` and `check` load. No host can
# load it, so it lies where hosts do not look for plug-ins; ./configure builds the one for a host.

install(TARGETS zmqwriter_program RUNTIME DESTINATION bin COMPONENT server)
install(DIRECTORY ${CMAKE_BINARY_DIR}/plugin/
        DESTINATION lib/zmqwriter/plugin COMPONENT replay USE_SOURCE_PERMISSIONS)
include(ManualPages)
include(ShellCompletion)
include(InstallFolders)
include(Packages)
