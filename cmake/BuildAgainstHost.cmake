# Builds the plug-in against the tree of a real host, by the host's own CMake module:
#   cmake -DBRO_DIST=DIR [-DBRO_PLUGIN_INSTALL_ROOT=DIR]
# CMakeLists.txt includes this file when BRO_DIST is given and then ends. The sources are the same
# as without a host; nothing of host/ is used.

# --- what has to be there -----------------------------------------------------------------------

function(zmqwriter_require path what)
  if(NOT EXISTS ${path})
    message(FATAL_ERROR "BRO_DIST=${BRO_DIST}: ${what} (${path} does not exist).")
  endif()
endfunction()

get_filename_component(BRO_DIST "${BRO_DIST}" ABSOLUTE BASE_DIR ${CMAKE_BINARY_DIR})
zmqwriter_require(${BRO_DIST} "there is no such folder")
zmqwriter_require(${BRO_DIST}/cmake/BroPlugin.cmake
  "this is not the source tree of a host that can build plug-ins")
zmqwriter_require(${BRO_DIST}/build/CMakeCache.txt
  "the host is not configured; run ./configure there")
zmqwriter_require(${BRO_DIST}/build/src/bifcl "the host is not built; run make there")

# The host's package script reaches for ../VERSION and the other files of the package.
get_filename_component(build_parent ${CMAKE_BINARY_DIR} DIRECTORY)
get_filename_component(build_parent ${build_parent} REALPATH)
get_filename_component(source_folder ${CMAKE_SOURCE_DIR} REALPATH)
if(NOT build_parent STREQUAL source_folder)
  message(FATAL_ERROR "The build folder ${CMAKE_BINARY_DIR} must be a direct child of "
                      "${CMAKE_SOURCE_DIR}, because the host's package script expects it there.")
endif()

# A folder of the sources is a direct child, too. By now CMake has put its own files there; a folder
# that was built in before has the schema's header.
if(NOT EXISTS ${CMAKE_BINARY_DIR}/generated/aggregator_generated.h)
  file(GLOB foreign RELATIVE ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/*)
  list(REMOVE_ITEM foreign CMakeCache.txt CMakeFiles generated .cmake)
  if(foreign)
    message(FATAL_ERROR "${CMAKE_BINARY_DIR} is no build folder: it holds files of others. Name "
                        "another with -B, and remove CMakeCache.txt and CMakeFiles from this one.")
  endif()
endif()

include(${CMAKE_CURRENT_LIST_DIR}/Dependencies.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/PluginBuild.cmake)
find_package(Threads REQUIRED)

# --- what the sources need beside the host ------------------------------------------------------

set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(generated ${CMAKE_BINARY_DIR}/generated)
add_library(zmqwriter_options INTERFACE)  # the host's module has its own warning flags

# The schema's header, made right now: the host's module takes no generated sources.
file(MAKE_DIRECTORY ${generated})
set(schema ${CMAKE_SOURCE_DIR}/src/aggregator.fbs)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${schema})
execute_process(COMMAND ${ZMQWRITER_FLATC} --cpp -o ${generated} ${schema} RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "${ZMQWRITER_FLATC} could not compile ${schema}.")
endif()

# Darwin's process and host information, where the system is not Darwin.
add_subdirectory(platform)

# The settings file, where the host has none. Nobody fills in the global `settings` then, so the
# script constants alone decide.
set(settings_source)
if(NOT EXISTS ${BRO_DIST}/src/SettingsFile.h)
  configure_file(src/settings/SettingsFile.h ${generated}/SettingsFile.h COPYONLY)
  set(settings_source src/settings/SettingsFile.cc)
  message(STATUS "The host has no SettingsFile: ours is compiled in")
endif()

# --- the plug-in --------------------------------------------------------------------------------

# Where the host's module installs to: named here, so that this file knows it, too.
if(NOT BRO_PLUGIN_INSTALL_ROOT)
  load_cache(${BRO_DIST}/build READ_WITH_PREFIX host_ CMAKE_INSTALL_PREFIX BRO_PLUGIN_INSTALL_PATH)
  if(NOT host_BRO_PLUGIN_INSTALL_PATH)
    set(host_BRO_PLUGIN_INSTALL_PATH ${host_CMAKE_INSTALL_PREFIX}/lib/bro/plugins)
  endif()
  set(BRO_PLUGIN_INSTALL_ROOT ${host_BRO_PLUGIN_INSTALL_PATH} CACHE PATH
      "Folder to install the plug-in's folder into" FORCE)
endif()

set(CMAKE_MODULE_PATH ${BRO_DIST}/cmake)
include(BroPlugin)

# Ours, as a plug-in's build inherits neither from the host's. add_compile_options comes behind the
# flags that the host's module takes from the host's cache.
add_compile_options(-std=c++11 -fvisibility=hidden -fvisibility-inlines-hidden)
add_definitions(${ZMQWRITER_PATH_DEFINITIONS})
include_directories(${generated})

# The host's install rule does nothing where its folder is missing, and never fails.
set(magic_file "${BRO_PLUGIN_INSTALL_ROOT}/Dravenholt_ZMQWriter/__bro_plugin__")
install(CODE "
  set(magic_file \"\$ENV{DESTDIR}${magic_file}\")
  file(MAKE_DIRECTORY \"\$ENV{DESTDIR}${BRO_PLUGIN_INSTALL_ROOT}\")
  file(REMOVE \"\${magic_file}\")
  if(EXISTS \"\${magic_file}\")
    message(FATAL_ERROR \"Cannot remove \${magic_file}\")
  endif()")
include(${CMAKE_CURRENT_LIST_DIR}/InstallFolders.cmake)

bro_plugin_begin(Dravenholt ZMQWriter)
file(GLOB plugin_sources RELATIVE ${CMAKE_SOURCE_DIR} src/*.cc)
bro_plugin_cc(${plugin_sources} ${settings_source})
bro_plugin_bif(src/zmq.bif)
bro_plugin_link_library(platform ZMQWriter::zmq ZMQWriter::flatbuffers Threads::Threads
  ${ZMQWRITER_EXPORT_FLAGS})
bro_plugin_dist_files(README.md CHANGES COPYING VERSION)

# bro_plugin_end copies this folder, and nothing else makes it.
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/bif)
bro_plugin_end()

install(CODE "
  if(NOT EXISTS \"\${magic_file}\")
    message(FATAL_ERROR \"The plug-in was not installed: there is no \${magic_file}\")
  endif()")

# The host's module puts the root of the sources on the include path, and there the C++ library's
# <version> is VERSION on a volume that ignores case.
get_property(targets DIRECTORY PROPERTY BUILDSYSTEM_TARGETS)
foreach(target ${targets})
  get_property(type TARGET ${target} PROPERTY TYPE)
  if(type MATCHES "^(MODULE|STATIC)_LIBRARY$")
    get_property(folders TARGET ${target} PROPERTY INCLUDE_DIRECTORIES)
    list(REMOVE_ITEM folders ${CMAKE_SOURCE_DIR})
    set_property(TARGET ${target} PROPERTY INCLUDE_DIRECTORIES ${folders})
  endif()
endforeach()
