# The shells' completion scripts, printed by the program itself.

if(CMAKE_CROSSCOMPILING)
  return()
endif()

# Under the names by which the shells find them.
set(completion_folder ${CMAKE_BINARY_DIR}/completions)
set(completion_bash ${completion_folder}/bash/zmqwriter)
set(completion_zsh ${completion_folder}/zsh/_zmqwriter)
set(completion_fish ${completion_folder}/fish/zmqwriter.fish)
file(MAKE_DIRECTORY ${completion_folder}/bash ${completion_folder}/zsh ${completion_folder}/fish)
foreach(shell bash zsh fish)
  add_custom_command(OUTPUT ${completion_${shell}}
    COMMAND $<TARGET_FILE:zmqwriter_program> completion ${shell} > ${completion_${shell}}
    DEPENDS zmqwriter_program
    COMMENT "Generating the completion for ${shell}"
    VERBATIM)
endforeach()
add_custom_target(shell_completions ALL
  DEPENDS ${completion_bash} ${completion_zsh} ${completion_fish})
install(FILES ${completion_bash} DESTINATION share/bash-completion/completions COMPONENT server)
install(FILES ${completion_zsh} DESTINATION share/zsh/site-functions COMPONENT server)
install(FILES ${completion_fish} DESTINATION share/fish/vendor_completions.d COMPONENT server)
