# Lays out everything of a plug-in folder but the shared object.
#   cmake -DFOLDER=... -DSCRIPTS=... -DSTUB=zmq.bif.bro -P PluginFolder.cmake
# The magic file is written last: a folder that has it is complete.

file(REMOVE ${FOLDER}/__bro_plugin__)
file(REMOVE_RECURSE ${FOLDER}/scripts ${FOLDER}/lib/bif)
file(COPY ${SCRIPTS}/ DESTINATION ${FOLDER}/scripts FILES_MATCHING PATTERN "*.bro")
file(COPY ${STUB} DESTINATION ${FOLDER}/lib/bif)
file(WRITE ${FOLDER}/lib/bif/__load__.bro "@load ./zmq.bif.bro\n")
file(WRITE ${FOLDER}/__bro_plugin__ "Dravenholt::ZMQWriter\n")
