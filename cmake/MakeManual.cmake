# Makes the manual pages of the program and all its subcommands:
#   cmake -DPROGRAM=... -DHELP2MAN=... -DSECTIONS=DIR -DFOLDER=DIR -P MakeManual.cmake
# FOLDER is emptied first. SECTIONS has sections that --help lacks, in help2man's form: a file
# common.h2m for all pages, and one for a page of the same name.
cmake_minimum_required(VERSION 3.16)

# help2man names a page after the program that it runs, and knows of no subcommands.
set(wrappers ${FOLDER}.wrappers)
file(REMOVE_RECURSE ${FOLDER} ${wrappers})
file(MAKE_DIRECTORY ${FOLDER} ${wrappers})
set(ENV{LC_ALL} C)

function(run variable)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE failed OUTPUT_VARIABLE output
    ERROR_VARIABLE problem)
  if(failed)
    message(FATAL_ERROR "${ARGN} failed: ${problem}${output}")
  endif()
  set(${variable} "${output}" PARENT_SCOPE)
endfunction()

# The names in the list "Subcommands:" of a help text.
function(subcommands_of help variable)
  set(names)
  if(help MATCHES "\nSubcommands:\n(.*)")
    string(REGEX MATCHALL "\n  [a-z0-9-]+" names "\n${CMAKE_MATCH_1}")
    list(TRANSFORM names STRIP)
  endif()
  set(${variable} "${names}" PARENT_SCOPE)
endfunction()

# What NAME says: the beginning of the description, with a small letter.
function(summary_of help variable)
  string(REGEX REPLACE "\nUsage: .*" "" summary "${help}")
  string(REGEX REPLACE "[ \n]+" " " summary "${summary}")
  string(REGEX REPLACE "[:;.] .*" "" summary "${summary}")
  string(SUBSTRING "${summary}" 0 1 first)
  string(SUBSTRING "${summary}" 1 -1 rest)
  string(TOLOWER "${first}" first)
  set(${variable} "${first}${rest}" PARENT_SCOPE)
endfunction()

# make_page(OTHERS WORDS...): the page of the subcommand WORDS; OTHERS are the pages to see also.
function(make_page others)
  list(JOIN ARGN "-" words)
  string(REGEX REPLACE "-$" "" name "zmqwriter-${words}")
  run(help ${PROGRAM} ${ARGN} --help)
  subcommands_of("${help}" subcommands)
  summary_of("${help}" summary)

  list(JOIN ARGN " " words)
  file(WRITE ${wrappers}/${name} "#!/bin/sh\nexec '${PROGRAM}' ${words} \"$@\"\n")
  run(ignored chmod +x ${wrappers}/${name})

  list(TRANSFORM subcommands PREPEND "${name}-" OUTPUT_VARIABLE below)
  set(see_also)
  foreach(page ${others} ${below})
    list(APPEND see_also ".BR ${page} (1)")
  endforeach()
  list(JOIN see_also ",\n" see_also)
  file(WRITE ${wrappers}/${name}.h2m "[SEE ALSO]\n${see_also}\n")

  run(ignored ${HELP2MAN} --no-info --section=1 --source=ZMQWriter --manual=ZMQWriter
    --name=${summary} --version-string=${version} --include=${SECTIONS}/common.h2m
    --opt-include=${SECTIONS}/${name}.h2m --include=${wrappers}/${name}.h2m
    --output=${FOLDER}/${name}.1 ${wrappers}/${name})

  foreach(subcommand IN LISTS subcommands)
    make_page("${name}" ${ARGN} ${subcommand})
  endforeach()
endfunction()

run(version ${PROGRAM} --version)
string(REGEX REPLACE "^zmqwriter ([^\n]*)\n.*" "\\1" version "${version}")
make_page("")
