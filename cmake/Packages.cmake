# What `cpack` makes in the build folder (CMake 3.19 or later):
#   zmqwriter_VERSION_ARCH.deb         for servers: the program, its unit, user, folders and pages
#   zmqwriter-replay_VERSION_ARCH.deb  for trials: the plug-in that `zmqwriter replay` and `check` load
#   zmqwriter-VERSION.tar.gz           the sources, with `cpack --config CPackSourceConfig.cmake`
# Whoever builds packages for others sets CPACK_PACKAGE_CONTACT and CPACK_DEBIAN_PACKAGE_RELEASE.

set(docs share/doc/zmqwriter)
set(examples ${docs}/examples)
set(package_only COMPONENT server EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${docs} ${package_only})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${docs} ${package_only}
        FILES_MATCHING PATTERN *.md PATTERN man EXCLUDE)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/setup/examples/ DESTINATION ${examples} ${package_only}
        PATTERN *.plist EXCLUDE PATTERN *.service EXCLUDE)

# The first lines of an example tell how to do by hand what the package does.
file(GLOB units CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/setup/examples/*.service)
foreach(example IN LISTS units)
  get_filename_component(name ${example} NAME)
  file(READ ${example} unit)
  string(REGEX REPLACE "^(#[^\n]*\n)+" "# Described in /usr/${docs}/docs/operations.md.\n" unit "${unit}")
  string(REPLACE /opt/zmqwriter/bin/ /usr/bin/ unit "${unit}")
  file(WRITE ${CMAKE_BINARY_DIR}/units/${name} "${unit}")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${example})
  install(FILES ${CMAKE_BINARY_DIR}/units/${name} DESTINATION lib/systemd/system ${package_only})
endforeach()

# For trials without the folders of an agent.
install(DIRECTORY ${CMAKE_BINARY_DIR}/plugin-sandbox DESTINATION lib/zmqwriter
        COMPONENT replay EXCLUDE_FROM_ALL USE_SOURCE_PERMISSIONS)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/samples DESTINATION share/doc/zmqwriter-replay/examples
        COMPONENT replay EXCLUDE_FROM_ALL)

set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zmqwriter)
set(CPACK_PACKAGE_CONTACT "The ZMQWriter authors <zmqwriter@example.org>" CACHE STRING
    "Who answers for the packages")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/COPYING)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL server replay)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENT_REPLAY_DEPENDS server)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/FinishPackage.cmake)

set(debian ${PROJECT_SOURCE_DIR}/setup/debian)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_SERVER_PACKAGE_NAME zmqwriter)
set(CPACK_DEBIAN_SERVER_DESCRIPTION "collector of ZMQWriter events
The program zmqwriter receives the events of network monitors over
CURVE-encrypted ZeroMQ and writes them as JSON, text or raw messages.
.
This package makes a user and folders for the collector. It starts no service.")
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS adduser)
set(CPACK_DEBIAN_SERVER_PACKAGE_SUGGESTS zmqwriter-replay)
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA ${debian}/postinst ${debian}/prerm ${debian}/postrm)
set(CPACK_DEBIAN_REPLAY_PACKAGE_NAME zmqwriter-replay)
set(CPACK_DEBIAN_REPLAY_DESCRIPTION "plug-in for zmqwriter replay and zmqwriter check
The log-writer plug-in over a stand-in for its host. With it zmqwriter replays
logs and checks the configuration of an agent. No host can load it.")

set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_PACKAGE_FILE_NAME zmqwriter-${PROJECT_VERSION})
set(CPACK_SOURCE_INSTALLED_DIRECTORIES "")
include(CPack)
file(APPEND ${CPACK_SOURCE_OUTPUT_CONFIG_FILE}
     "set(CPACK_PACKAGING_INSTALL_PREFIX /)\n"
     "set(CPACK_PRE_BUILD_SCRIPTS)\n"
     "set(CPACK_INSTALL_SCRIPTS [[${CMAKE_CURRENT_LIST_DIR}/SourceArchive.cmake]])\n")
