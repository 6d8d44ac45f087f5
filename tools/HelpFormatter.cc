#include "HelpFormatter.h"

#include <sstream>

#include "Text.h"

namespace zmqwriter {

namespace {

constexpr std::size_t kTerminalColumns = 80;
constexpr std::size_t kDescriptionColumn = 26;

/// "json|text|raw" out of "TEXT:{json,text,raw}", which is how CLI11 names a set of values; any
/// other name as it is.
std::string readable_type(const std::string& type) {
  const std::size_t open = type.find('{');
  if (open == std::string::npos || type.back() != '}')
    return type;
  return CLI::detail::find_and_replace(type.substr(open + 1, type.size() - open - 2), ",", "|");
}

}  // namespace

HelpFormatter::HelpFormatter() {
  column_width(kDescriptionColumn);
}

std::string HelpFormatter::make_row(const std::string& name, const std::string& description) const {
  std::ostringstream row;
  CLI::detail::format_help(row, name, "", kDescriptionColumn);
  std::string result = row.str();
  if (description.empty())
    return result;
  result.pop_back();
  // At least one blank stands between the columns.
  if (2 + name.size() >= kDescriptionColumn)
    result += "\n" + std::string(kDescriptionColumn, ' ');
  return result + wrapped(description, kDescriptionColumn, kTerminalColumns) + "\n";
}

std::string HelpFormatter::make_description(const CLI::App* app) const {
  return wrapped(CLI::Formatter::make_description(app), 0, kTerminalColumns) + "\n";
}

std::string HelpFormatter::make_subcommand(const CLI::App* subcommand) const {
  return make_row(subcommand->get_display_name(true), subcommand->get_description());
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool is_positional) const {
  return make_row(make_option_name(option, is_positional) + make_option_opts(option),
                  make_option_desc(option));
}

std::string HelpFormatter::make_option_name(const CLI::Option* option, bool is_positional) const {
  return CLI::detail::find_and_replace(CLI::Formatter::make_option_name(option, is_positional),
                                       ",--", ", --");
}

std::string HelpFormatter::make_option_opts(const CLI::Option* option) const {
  if (option->get_items_expected_max() == 0)  // a flag
    return "";
  const std::string type = option->get_positional() ? "" : readable_type(option->get_type_name());
  const bool many = option->get_expected_max() == CLI::detail::expected_max_vector_size;
  return (type.empty() ? "" : " " + type) + (many ? " ..." : "");
}

std::string HelpFormatter::make_option_desc(const CLI::Option* option) const {
  std::string description = option->get_description();
  if (option->get_required())
    description += " (required)";
  if (!option->get_default_str().empty())
    description += " (default: " + option->get_default_str() + ")";
  return description;
}

}  // namespace zmqwriter
