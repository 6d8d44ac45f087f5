#include "EventSubject.h"

#include <algorithm>

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
  agent = agent.substr(0, kLongestAgentToken);
  if (std::all_of(agent.begin(), agent.end(), is_plain))
    return std::string(agent);
  std::string token;
  for (const char c : agent) {
    if (is_plain(c)) {
      token += c;
      continue;
    }
    token += '%' + hex_digits(&c, 1);
  }
  return token;
}

std::string event_subject(const std::string& prefix, const EventMessage& event) {
  std::string subject;
  subject.reserve(128);
  subject.append(prefix).append(1, '.').append(event.PayloadType());
  return subject.append(1, '.').append(agent_token(event.AgentId()));
}

}  // namespace zmqwriter
