// The script side of the stand-in: constants, types and functions by their full names
// ("LogZMQ::x", "system_stats").
//
// They come from the plug-in's .bro files (ScriptReader.h) or straight from a test. Main thread.
#pragma once

#include <initializer_list>
#include <string>

#include "Type.h"

class Val;

namespace standin {

/// A constant with a value. Takes over value's reference. Replaces one of that name.
void define_const(const std::string& name, Val* value);
/// As define_const with `&redef`.
void define_option(const std::string& name, Val* value);
/// An option without a value: `const NAME: TYPE &redef`. Takes over type's reference.
void declare_option(const std::string& name, BroType* type);
/// A type. Takes over type's reference.
void define_type(const std::string& name, BroType* type);
/// A function or event without a body yet: what BuiltinFunc needs. A second call changes nothing.
void declare_function(const std::string& name);
/// Forgets everything but the host's own types.
void forget_scripts();

/// One field of record_type. Takes over type's reference.
struct FieldSpec {
  std::string name;
  BroType* type;
  bool optional;
  bool log;
  Val* default_value;  ///< takes over its reference; null for none

  FieldSpec(const std::string& name, BroType* type, bool optional = false, bool log = false,
            Val* default_value = nullptr)
      : name(name), type(type), optional(optional), log(log), default_value(default_value) {}
};

/// A new record type.
RecordType* record_type(const std::string& name, std::initializer_list<FieldSpec> fields);

/// One field for a RecordType. Takes over both references; `default_value` may be null.
TypeDecl* make_field(const std::string& name, BroType* type, bool optional, bool log,
                     Val* default_value);

/// The value of a literal as scripts write it ("5sec", "80/tcp", "T"), strings excepted. `type`
/// may be null: then the literal decides. New reference; null when it is none or does not fit, and
/// in the second case `*error` says so.
Val* parse_literal(const std::string& text, const BroType* type, std::string* error);

/// Same as `redef NAME=VALUE` on the host's command line: the text becomes a value of the type
/// that NAME already has. Throws standin::HostError when there is no such option or the text does
/// not fit.
void redefine(const std::string& name, const std::string& text);

}  // namespace standin
