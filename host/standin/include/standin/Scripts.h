// The script side of the stand-in: constants, types and functions by their full names
// ("LogZMQ::x", "system_stats").
//
// They come from the plug-in's .bro files or straight from a test. Main thread.
#pragma once

#include <string>

#include "Type.h"

class Val;

namespace standin {

/// A constant with a value and with `&redef`. Takes over value's reference. Replaces one of that
/// name.
void define_option(const std::string& name, Val* value);
/// The same without `&redef`.
void define_const(const std::string& name, Val* value);
/// A type. Takes over type's reference.
void define_type(const std::string& name, BroType* type);
/// A function without a body yet: what BuiltinFunc needs. A second call changes nothing.
void declare_function(const std::string& name);
/// Forgets everything but the host's own types.
void forget_scripts();

/// Defines what the plug-in needs of a script and of those that it loads by their path from there.
/// Throws standin::HostError when one of them cannot be read.
void load_script(const std::string& path);

/// Same as `redef NAME=VALUE` on the host's command line, for an option that holds a string. Throws
/// standin::HostError when there is none of that name or the text does not fit.
void redefine(const std::string& name, const std::string& text);

}  // namespace standin
