// The values of log records, made from text.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "threading/SerialTypes.h"

namespace zmqwriter {

/// Deletes a value as the host does, with its strings and elements.
using ValuePtr = std::unique_ptr<threading::Value>;

/// A problem of one value, for the report of its line.
class BadValue : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads "count", "set[addr]", ...; false for types that no log can hold. `subtype` is TYPE_VOID
/// unless `type` is a container.
bool parse_type(std::string_view text, TypeTag* type, TypeTag* subtype);

bool is_container(TypeTag type);
/// Whether values of the type hold a text of the host's own: string, enum, file, func.
bool is_text(TypeTag type);

/// A value's text for a message: short, and printable on one line.
std::string in_quotes(std::string_view text);

/// A number as the host writes it. Throws BadValue.
double parse_double(std::string_view text);

ValuePtr unset_value(TypeTag type);
/// Of a type that is_text. Throws BadValue when it is too long.
ValuePtr text_value(TypeTag type, std::string_view text);
/// Of any other atomic type, from the host's own text for it. Throws BadValue.
ValuePtr plain_value(TypeTag type, std::string_view text);
/// Of a type that is_container.
ValuePtr container_value(TypeTag type, std::vector<ValuePtr> elements);

}  // namespace zmqwriter
