#include "EventSubject.h"

#include "EventJson.h"
#include "Text.h"

namespace zmqwriter {

namespace {

bool is_plain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_';
}

}  // namespace

std::string agent_token(std::string_view agent) {
  if (agent.empty())
    return "_";
  if (agent == "_")
    return "%5F";
  std::string token;
  for (const char c : agent.substr(0, kLongestAgentToken)) {
    if (is_plain(c)) {
      token += c;
      continue;
    }
    token += '%' + hex_digits(&c, 1);
  }
  return token;
}

std::string event_subject(const std::string& prefix, const EventMessage& event) {
  return prefix + '.' + event.PayloadType() + '.' + agent_token(event.AgentId());
}

}  // namespace zmqwriter
