# Makes FOLDERS (below DESTDIR, if that is set) for AGENT_USER alone; see InstallFolders.cmake.
# Also by itself: cmake [-DAGENT_USER=USER] "-DFOLDERS=DIR;..." -P PrepareFolder.cmake

function(zmqwriter_cannot_make path why)
  message(FATAL_ERROR "Cannot make ${path}: ${why}\n"
    "Install as a user who may, or make it yourself (mode 0700, owned by the user that the host "
    "runs as) and leave this step out:\n"
    "  ./configure --no-prepare                    for a build against a host\n"
    "  cmake -DZMQWRITER_PREPARE_FOLDERS=OFF ...   for any other\n")
endfunction()

# Name and id of the user who is to own PATH.
function(zmqwriter_wanted_owner path name_variable id_variable)
  set(name "${AGENT_USER}")
  if(name STREQUAL "")
    execute_process(COMMAND id -un OUTPUT_VARIABLE name OUTPUT_STRIP_TRAILING_WHITESPACE)
    execute_process(COMMAND id -u OUTPUT_VARIABLE id OUTPUT_STRIP_TRAILING_WHITESPACE)
  elseif(name MATCHES "^[0-9]+$")
    set(id ${name})
  else()
    execute_process(COMMAND id -u "${name}" RESULT_VARIABLE failed OUTPUT_VARIABLE id
      ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(failed)
      zmqwriter_cannot_make("${path}" "there is no user ${name} to own it.")
    endif()
  endif()
  set(${name_variable} "${name}" PARENT_SCOPE)
  set(${id_variable} "${id}" PARENT_SCOPE)
endfunction()

# install(1) sets mode and owner of the last folder at once, whatever the umask.
function(zmqwriter_make_folder path)
  execute_process(COMMAND install -d ${ARGN} "${path}"
    RESULT_VARIABLE failed ERROR_VARIABLE why OUTPUT_QUIET ERROR_STRIP_TRAILING_WHITESPACE)
  if(failed)
    zmqwriter_cannot_make("${path}" "${why}")
  endif()
endfunction()

# One by one: not every system's install(1) gives the mode to more than the last folder.
function(zmqwriter_make_parents path)
  get_filename_component(parent "${path}" DIRECTORY)
  if(NOT IS_DIRECTORY "${parent}" AND NOT parent STREQUAL path)
    zmqwriter_make_parents("${parent}")
    zmqwriter_make_folder("${parent}" -m 0755)
  endif()
endfunction()

function(zmqwriter_check_folder path owner owner_id)
  message(STATUS "Exists already, left as it is: ${path}")
  execute_process(COMMAND stat -L -c "%u %a" "${path}" RESULT_VARIABLE failed
    OUTPUT_VARIABLE state ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(failed)  # not GNU's
    execute_process(COMMAND stat -L -f "%u %Lp" "${path}"
      OUTPUT_VARIABLE state ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
  endif()
  if(NOT state MATCHES "^([0-9]+) ([0-7]+)$")
    return()
  endif()
  set(mode ${CMAKE_MATCH_2})
  set(commands)
  if(NOT CMAKE_MATCH_1 STREQUAL owner_id)
    string(APPEND commands "  chown ${owner} \"${path}\"\n")
  endif()
  if(NOT mode STREQUAL "700")
    string(APPEND commands "  chmod 0700 \"${path}\"\n")
  endif()
  if(commands)
    message(WARNING "This folder is not what the plug-in needs: it should belong to the user "
      "${owner} alone. If nothing else uses it, type:\n${commands}")
  endif()
endfunction()

function(zmqwriter_prepare_folder folder)
  set(path "$ENV{DESTDIR}${folder}")
  if(NOT IS_ABSOLUTE "${folder}")
    message(STATUS "Not prepared, as it belongs to the working directory of the host: ${folder}")
    return()
  endif()
  zmqwriter_wanted_owner("${path}" owner owner_id)
  if(IS_DIRECTORY "${path}")
    zmqwriter_check_folder("${path}" "${owner}" "${owner_id}")
    return()
  endif()
  zmqwriter_make_parents("${path}")
  if(AGENT_USER STREQUAL "")
    zmqwriter_make_folder("${path}" -m 0700)
    message(STATUS "Made for the installing user alone: ${path} (mode 0700)")
  else()
    zmqwriter_make_folder("${path}" -m 0700 -o "${AGENT_USER}")
    message(STATUS "Made for the user ${AGENT_USER} alone: ${path} (mode 0700)")
  endif()
endfunction()

if(NOT DEFINED AGENT_USER)
  set(AGENT_USER "")
endif()
# The outer folder first: made as the parent of the inner one it would not be the agent's.
list(REMOVE_DUPLICATES FOLDERS)
list(SORT FOLDERS)
foreach(folder IN LISTS FOLDERS)
  zmqwriter_prepare_folder("${folder}")
endforeach()
