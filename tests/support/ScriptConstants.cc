#include "ScriptConstants.h"

namespace BifConst {
namespace LogZMQ {
StringVal* zmq_primary_server = nullptr;
StringVal* zmq_secondary_server = nullptr;
StringVal* zmq_public_key = nullptr;
StringVal* zmq_agent_id = nullptr;
StringVal* set_separator = nullptr;
StringVal* empty_field = nullptr;
StringVal* unset_field = nullptr;
}  // namespace LogZMQ
}  // namespace BifConst

using namespace BifConst::LogZMQ;

namespace test {

ScriptConstants::ScriptConstants() {
  set(zmq_primary_server, "primary");
  set(zmq_secondary_server, "secondary");
  set(zmq_public_key, "key");
  set(zmq_agent_id, "agent-7");
  set(set_separator, ",");
  set(unset_field, "-");
  set(empty_field, "(empty)");
}

ScriptConstants::~ScriptConstants() {
  for (StringVal** constant : {&zmq_primary_server, &zmq_secondary_server, &zmq_public_key,
                               &zmq_agent_id, &set_separator, &unset_field, &empty_field}) {
    Unref(*constant);
    *constant = nullptr;
  }
}

void ScriptConstants::set(StringVal*& constant, const std::string& value) {
  Unref(constant);
  constant = new StringVal(static_cast<int>(value.size()), value.data());
}

}  // namespace test
