// Values of log records as text, for comparisons in tests.
#pragma once

#include <string>

#include "threading/SerialTypes.h"

namespace test {

/// What a value holds, read straight out of its union: "unset" (only over a zeroed union), "-42",
/// "'text'", "v4:c0000201", "v4:c0000200/120", "{'a' 'b'}" for sets, "[1 unset 3]" for vectors.
std::string show(const threading::Value& value);

}  // namespace test
