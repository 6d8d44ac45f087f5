# Makes MANIFEST, dist/NAME-<version>.tar.gz and the link NAME.tgz in the build folder, where it
# runs.

set(build ${CMAKE_CURRENT_BINARY_DIR})
file(STRINGS ../VERSION version LIMIT_COUNT 1)
set(stage ${build}/stage/${NAME})
file(REMOVE_RECURSE ${build}/stage)
file(MAKE_DIRECTORY ${stage} ${build}/dist)
get_filename_component(scripts ${build}/scripts REALPATH)
file(COPY ${build}/__bro_plugin__ ${build}/lib DESTINATION ${stage})
file(COPY ${scripts}/ DESTINATION ${stage}/scripts)
string(REPLACE "," ";" files "${FILES}")
foreach(file ${files})
  if(NOT EXISTS ${build}/../${file})
    message(FATAL_ERROR "there is no ../${file}")
  endif()
  file(COPY ${build}/../${file} DESTINATION ${stage})
endforeach()
file(GLOB_RECURSE manifest RELATIVE ${stage} ${stage}/*)
string(REPLACE ";" "\n" manifest "${manifest}")
file(WRITE ${build}/MANIFEST "${manifest}\n")
execute_process(COMMAND ${CMAKE_COMMAND} -E tar czf ${build}/dist/${NAME}-${version}.tar.gz ${NAME}
  WORKING_DIRECTORY ${build}/stage RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "cannot pack")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E create_symlink dist/${NAME}-${version}.tar.gz
  ${build}/${NAME}.tgz)
