#include "threading/formatters/Ascii.h"

#include <stdlib.h>

#include "HostReporter.h"

namespace threading {
namespace formatter {

namespace {

[[noreturn]] void refuse() {
  host::any_reporter().InternalError("the stand-in's formatter can neither write nor read");
  abort();
}

}  // namespace

Ascii::SeparatorInfo::SeparatorInfo(const string& arg_separator, const string& arg_set_separator,
                                    const string& arg_unset_field, const string& arg_empty_field)
    : separator(arg_separator),
      set_separator(arg_set_separator),
      unset_field(arg_unset_field),
      empty_field(arg_empty_field) {}

Ascii::Ascii(threading::MsgThread* t, const SeparatorInfo& info) : Formatter(t), separators(info) {}

Ascii::~Ascii() {}

bool Ascii::Describe(ODesc*, int, const threading::Field* const*, threading::Value**) const {
  refuse();
}

bool Ascii::Describe(ODesc*, threading::Value*, const string&) const {
  refuse();
}

threading::Value* Ascii::ParseValue(const string&, const string&, TypeTag, TypeTag) const {
  refuse();
}

}  // namespace formatter
}  // namespace threading
