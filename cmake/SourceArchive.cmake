# Copies the files that git tracks, as they are now, to where cpack packs them.

set(sources ${CMAKE_CURRENT_LIST_DIR}/..)
execute_process(COMMAND git -c core.quotePath=off ls-files WORKING_DIRECTORY ${sources}
  RESULT_VARIABLE failed OUTPUT_VARIABLE files)
if(failed OR NOT files)
  message(FATAL_ERROR "The source archive is made of what git tracks in ${sources}, and "
                      "git names nothing there")
endif()
string(REGEX MATCHALL "[^\n]+" files "${files}")
foreach(name IN LISTS files)
  get_filename_component(folder ${name} DIRECTORY)
  file(COPY ${sources}/${name} DESTINATION ${CMAKE_INSTALL_PREFIX}/${folder})
endforeach()
