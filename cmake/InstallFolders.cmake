# Installing also prepares the folders that the plug-in works in: the one with the agent-id file,
# and the parent of the spool, without which the plug-in keeps no spool (it makes the last folder
# only). Only the agent's user is let in (mode 0700). A folder that is there is left as it is, with a
# warning where its owner or mode is another.
#
#   ZMQWRITER_PREPARE_FOLDERS  OFF leaves this to the packager
#   ZMQWRITER_AGENT_USER       the user that the host runs as, who gets the folders (empty: the user
#                              who installs)

include(${CMAKE_CURRENT_LIST_DIR}/PluginBuild.cmake)

option(ZMQWRITER_PREPARE_FOLDERS "Make the folders that the plug-in works in when installing" ON)
set(ZMQWRITER_AGENT_USER "" CACHE STRING
    "User that the host runs as, owner of the prepared folders (empty: who installs)")

if(ZMQWRITER_PREPARE_FOLDERS)
  get_filename_component(spool_parent "${ZMQWRITER_FIXED_SPOOL_FOLDER}" DIRECTORY)
  install(CODE "
    execute_process(COMMAND sh \"${CMAKE_CURRENT_LIST_DIR}/prepare-folders\"
      \"${ZMQWRITER_AGENT_USER}\" \"${ZMQWRITER_FIXED_INSTALL_PREFIX}\" \"${spool_parent}\"
      RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR \"The plug-in's folders were not made\")
    endif()")
endif()
