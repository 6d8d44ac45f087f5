# The commands that a host's module BroPlugin offers, with their effect on the build folder, the
# package and the installation, and with the peculiarities that a plug-in's build has to cope with:
#   - the include folders: the plug-in's first, then the host's
#   - no C++ standard is set
#   - the folder bif/ of the build folder is copied, and nothing here makes it
#   - the package script takes VERSION and the files of the package from the folder above the build
#   - installing says nothing and succeeds, even where the folder to install into does not exist

load_cache(${BRO_DIST}/build READ_WITH_PREFIX host_ CMAKE_INSTALL_PREFIX)
list(APPEND CMAKE_MODULE_PATH ${CMAKE_SOURCE_DIR}/cmake)

set(CMAKE_CXX_FLAGS "${CMAKE_CXX_FLAGS} -Wall -Wno-unused")
add_definitions(-DBRO_PLUGIN_INTERNAL_BUILD=false)
include_directories(BEFORE
  ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR}/src ${CMAKE_BINARY_DIR}
  ${BRO_DIST}/build/src ${BRO_DIST}/build ${BRO_DIST}/src)

if(BRO_PLUGIN_INSTALL_ROOT)
  set(mock_install_root ${BRO_PLUGIN_INSTALL_ROOT})
else()
  set(mock_install_root ${host_CMAKE_INSTALL_PREFIX}/lib/bro/plugins)
endif()

macro(bro_plugin_begin ns name)
  set(mock_ns ${ns})
  set(mock_name ${name})
  set(mock_sources)
  set(mock_stubs)
  set(mock_libraries)
  set(mock_dist_files)
endmacro()

macro(bro_plugin_cc)
  list(APPEND mock_sources ${ARGN})
endmacro()

macro(bro_plugin_link_library)
  list(APPEND mock_libraries ${ARGN})
endmacro()

macro(bro_plugin_dist_files)
  list(APPEND mock_dist_files ${ARGN})
endmacro()

macro(bro_plugin_bif)
  foreach(bif ${ARGN})
    get_filename_component(bif_name ${bif} NAME)
    set(bif_outputs)
    foreach(extension h cc init.cc register.cc bro)
      list(APPEND bif_outputs ${CMAKE_BINARY_DIR}/${bif_name}.${extension})
    endforeach()
    add_custom_command(OUTPUT ${bif_outputs}
      COMMAND ${BRO_DIST}/build/src/bifcl -p ${mock_ns}::${mock_name} ${CMAKE_SOURCE_DIR}/${bif}
      WORKING_DIRECTORY ${CMAKE_BINARY_DIR} DEPENDS ${CMAKE_SOURCE_DIR}/${bif})
    list(APPEND mock_sources ${bif_outputs})
    list(APPEND mock_stubs ${bif_name}.bro)
  endforeach()
endmacro()

macro(bro_plugin_end)
  string(TOLOWER ${CMAKE_SYSTEM_NAME} os)
  execute_process(COMMAND uname -m OUTPUT_VARIABLE machine OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(target ${mock_ns}-${mock_name})
  add_library(${target} MODULE ${mock_sources})
  set_target_properties(${target} PROPERTIES PREFIX "" SUFFIX ".so"
    OUTPUT_NAME ${target}.${os}-${machine} LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
  target_link_libraries(${target} ${mock_libraries})

  file(WRITE ${CMAKE_BINARY_DIR}/__bro_plugin__ "${mock_ns}::${mock_name}\n")
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E create_symlink ${CMAKE_SOURCE_DIR}/scripts ${CMAKE_BINARY_DIR}/scripts)
  foreach(stub ${mock_stubs})
    file(APPEND ${CMAKE_BINARY_DIR}/lib/bif/__load__.bro.new "@load ./${stub}\n")
    add_custom_command(TARGET ${target} POST_BUILD
      COMMAND ${CMAKE_COMMAND} -E copy_directory bif lib/bif
      COMMAND ${CMAKE_COMMAND} -E copy ${stub} lib/bif
      WORKING_DIRECTORY ${CMAKE_BINARY_DIR})
  endforeach()
  file(RENAME ${CMAKE_BINARY_DIR}/lib/bif/__load__.bro.new ${CMAKE_BINARY_DIR}/lib/bif/__load__.bro)

  set(dist ${mock_ns}_${mock_name})
  string(REPLACE ";" "," dist_files "${mock_dist_files}")
  add_custom_command(TARGET ${target} POST_BUILD WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    COMMAND ${CMAKE_COMMAND} -DNAME=${dist} -DFILES=${dist_files}
            -P ${BRO_DIST}/cmake/MockPackage.cmake)
  install(CODE "
    set(root \"\$ENV{DESTDIR}${mock_install_root}\")
    if(EXISTS \"\${root}\" AND EXISTS \"${CMAKE_BINARY_DIR}/${dist}.tgz\")
      file(REMOVE_RECURSE \"\${root}/${dist}\")
      execute_process(COMMAND \${CMAKE_COMMAND} -E tar xzf ${CMAKE_BINARY_DIR}/${dist}.tgz
        WORKING_DIRECTORY \"\${root}\" OUTPUT_QUIET ERROR_QUIET)
    endif()")
endmacro()
