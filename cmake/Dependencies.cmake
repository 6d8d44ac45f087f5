# The libraries and tools of others, as imported targets:
#   ZMQWriter::zmq          libzmq with CURVE
#   ZMQWriter::flatbuffers  the FlatBuffers runtime headers
#   ZMQWRITER_FLATC         the FlatBuffers compiler
# tools/CMakeLists.txt looks for what the tools alone need.

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

# Without CURVE there is nothing to build: events must never leave in clear text.
if(NOT CMAKE_CROSSCOMPILING)
  include(CheckCXXSourceRuns)
  set(CMAKE_REQUIRED_LIBRARIES ZMQWriter::zmq)
  check_cxx_source_runs("#include <zmq.h>
    int main() { return zmq_has(\"curve\") ? 0 : 1; }" ZMQWRITER_ZMQ_HAS_CURVE)
  unset(CMAKE_REQUIRED_LIBRARIES)
  if(NOT ZMQWRITER_ZMQ_HAS_CURVE)
    message(FATAL_ERROR "${ZMQWRITER_ZMQ_LIBRARY} was built without CURVE security. Install a libzmq "
                        "that has it (Debian's and Homebrew's packages do) and configure anew.")
  endif()
endif()

find_path(ZMQWRITER_FLATBUFFERS_INCLUDE flatbuffers/flatbuffers.h)
find_program(ZMQWRITER_FLATC flatc)
zmqwriter_need(ZMQWRITER_FLATBUFFERS_INCLUDE "The FlatBuffers headers" libflatbuffers-dev flatbuffers)
zmqwriter_need(ZMQWRITER_FLATC "The FlatBuffers compiler flatc" flatbuffers-compiler flatbuffers)
add_library(ZMQWriter::flatbuffers INTERFACE IMPORTED)
set_target_properties(ZMQWriter::flatbuffers PROPERTIES
  INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${ZMQWRITER_FLATBUFFERS_INCLUDE}")
