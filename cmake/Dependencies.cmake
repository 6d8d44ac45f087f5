# The libraries and tools of others, as imported targets:
#   ZMQWriter::zmq          libzmq with CURVE
#   ZMQWriter::flatbuffers  the FlatBuffers runtime headers
#   ZMQWRITER_FLATC         the FlatBuffers compiler

function(zmqwriter_need variable what debian homebrew)
  if(NOT ${variable})
    message(FATAL_ERROR "${what} not found. Install it with 'apt-get install ${debian}' (Debian, "
                        "Ubuntu) or 'brew install ${homebrew}' (macOS), or run ./demo, which does.")
  endif()
endfunction()

find_path(ZMQWRITER_ZMQ_INCLUDE zmq.h)
find_library(ZMQWRITER_ZMQ_LIBRARY zmq)
zmqwriter_need(ZMQWRITER_ZMQ_INCLUDE "libzmq's header zmq.h" libzmq3-dev zeromq)
zmqwriter_need(ZMQWRITER_ZMQ_LIBRARY "libzmq" libzmq3-dev zeromq)
add_library(ZMQWriter::zmq UNKNOWN IMPORTED)
set_target_properties(ZMQWriter::zmq PROPERTIES
  IMPORTED_LOCATION "${ZMQWRITER_ZMQ_LIBRARY}"
  INTERFACE_INCLUDE_DIRECTORIES "${ZMQWRITER_ZMQ_INCLUDE}")

find_path(ZMQWRITER_FLATBUFFERS_INCLUDE flatbuffers/flatbuffers.h)
find_program(ZMQWRITER_FLATC flatc)
zmqwriter_need(ZMQWRITER_FLATBUFFERS_INCLUDE "The FlatBuffers headers" libflatbuffers-dev flatbuffers)
zmqwriter_need(ZMQWRITER_FLATC "The FlatBuffers compiler flatc" flatbuffers-compiler flatbuffers)
add_library(ZMQWriter::flatbuffers INTERFACE IMPORTED)
set_target_properties(ZMQWriter::flatbuffers PROPERTIES
  INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${ZMQWRITER_FLATBUFFERS_INCLUDE}")
