// The text form of values as the host's ASCII logs hold it, read back.
#pragma once

#include <string>

#include "threading/SerialTypes.h"

namespace standin {

/// The markers of a log.
struct ValueMarkers {
  std::string set_separator = ",";
  std::string unset_field = "-";
  std::string empty_field = "(empty)";
};

/// The value that `text`, one column of an ASCII log, stands for, or null: then `*error` says
/// what is wrong with it, without a full stop. Escapes (\xHH and \\) are undone; the unset marker
/// gives a value with present == false. Any thread.
threading::Value* parse_value(const std::string& text, TypeTag type, TypeTag subtype,
                              const ValueMarkers& markers, std::string* error);

}  // namespace standin
