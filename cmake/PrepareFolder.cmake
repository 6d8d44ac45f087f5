# Makes FOLDER (below DESTDIR, if that is set) for AGENT_USER alone; see InstallFolders.cmake.

set(path "$ENV{DESTDIR}${FOLDER}")
if(NOT IS_ABSOLUTE "${FOLDER}")
  message(STATUS "Not prepared, as it belongs to the working directory of the host: ${FOLDER}")
elseif(IS_DIRECTORY "${path}")
  message(STATUS "Exists already, left as it is: ${path}")
else()
  get_filename_component(parent "${path}" DIRECTORY)
  set(owner)
  if(AGENT_USER)
    set(owner -o ${AGENT_USER})
  endif()
  # The parents get the usual mode; install(1) sets mode and owner of the last folder at once.
  file(MAKE_DIRECTORY "${parent}")
  execute_process(COMMAND install -d -m 0700 ${owner} "${path}"
    RESULT_VARIABLE failed ERROR_VARIABLE why OUTPUT_QUIET ERROR_STRIP_TRAILING_WHITESPACE)
  if(failed)
    message(FATAL_ERROR "Cannot make ${path}: ${why}\n"
      "Install as a user who may, or configure with -DZMQWRITER_PREPARE_FOLDERS=OFF and make it "
      "yourself (mode 0700, owned by the user that the host runs as).")
  endif()
  if(AGENT_USER)
    message(STATUS "Made for the user ${AGENT_USER} alone: ${path} (mode 0700)")
  else()
    message(STATUS "Made for the installing user alone: ${path} (mode 0700)")
  endif()
endif()
