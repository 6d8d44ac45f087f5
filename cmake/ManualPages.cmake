# The manual pages: zmqwriter.1 and one for each subcommand, made by help2man out of what --help
# prints and of the sections in docs/man, which --help has no room for. Without help2man, or for
# another system, there are none.

find_program(ZMQWRITER_HELP2MAN help2man)
if(NOT ZMQWRITER_HELP2MAN OR CMAKE_CROSSCOMPILING)
  message(STATUS "No manual pages: help2man is not here, or cannot run the program")
  return()
endif()

set(manual_folder ${CMAKE_BINARY_DIR}/man/man1)
set(make_manual ${CMAKE_CURRENT_LIST_DIR}/make-manual)
set(manual_sections ${PROJECT_SOURCE_DIR}/docs/man)
file(GLOB manual_section_files CONFIGURE_DEPENDS ${manual_sections}/*.h2m)
add_custom_command(
  OUTPUT ${manual_folder}/zmqwriter.1
  COMMAND sh ${make_manual} $<TARGET_FILE:zmqwriter_program> ${ZMQWRITER_HELP2MAN}
          ${manual_sections} ${manual_folder}
  DEPENDS zmqwriter_program ${make_manual} ${manual_section_files}
  COMMENT "Generating the manual pages"
  VERBATIM)
add_custom_target(manual_pages ALL DEPENDS ${manual_folder}/zmqwriter.1)
install(DIRECTORY ${manual_folder}/ DESTINATION share/man/man1 COMPONENT server
        FILES_MATCHING PATTERN "*.1")
