// The script constants of LogZMQ as texts.
#pragma once

#include <string>

#include "zmq.bif.h"

/// All bytes of a constant. One that is no string ends the process with the host's bad-tag report.
inline std::string text_of(StringVal* constant) {
  const BroString* text = constant->AsString();
  return std::string(reinterpret_cast<const char*>(text->Bytes()), text->Len());
}
