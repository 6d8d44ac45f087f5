// The subjects that events are published under: PREFIX.<data_type>.<agent>.
#pragma once

#include <string>
#include <string_view>

namespace zmqwriter {

class EventMessage;

/// Longer names of agents are cut: a server refuses subjects of more than 4 KiB.
constexpr std::size_t kLongestAgentToken = 255;

std::string event_subject(const std::string& prefix, const EventMessage& event);

/// An agent's name as one token: bytes other than letters, digits, '-' and '_' are written %XX. The
/// empty name is "_", and the name "_" is "%5F".
std::string agent_token(std::string_view agent);

}  // namespace zmqwriter
