# Gives each package what Debian asks of it: licence, changes, compressed pages, stripped objects,
# and the folder where Debian's zsh looks.

set(source ${CMAKE_CURRENT_LIST_DIR}/..)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} key)
  set(name ${CPACK_DEBIAN_${key}_PACKAGE_NAME})
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX})
  set(share ${root}/share)
  configure_file(${source}/COPYING ${share}/doc/${name}/copyright COPYONLY)
  configure_file(${source}/CHANGES ${share}/doc/${name}/changelog COPYONLY)
  file(WRITE ${share}/doc/${name}/changelog.Debian
       "zmqwriter (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
       "  * See changelog.gz.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  file(GLOB pages ${share}/doc/${name}/changelog* ${share}/man/man1/*.1)
  file(GLOB objects ${root}/bin/* ${root}/lib/zmqwriter/*/lib/*.so)
  execute_process(COMMAND gzip -9nf ${pages} RESULT_VARIABLE not_compressed)
  execute_process(COMMAND strip --strip-unneeded ${objects} RESULT_VARIABLE not_stripped)
  if(not_compressed OR not_stripped)
    message(FATAL_ERROR "gzip or strip failed: ${not_compressed}, ${not_stripped}")
  endif()
  if(EXISTS ${share}/zsh/site-functions)
    file(RENAME ${share}/zsh/site-functions ${share}/zsh/vendor-completions)
  endif()
endforeach()
