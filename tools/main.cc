// zmqwriter: the tools around the plug-in, one subcommand per job.
//
// Exit status: 0 success, 1 failure, 2 wrong usage. Data goes to standard output, everything else
// to standard error.

#include <fcntl.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Text.h"

namespace {

using namespace zmqwriter;

constexpr int kFailure = 1;
constexpr int kWrongUsage = 2;

/// "json|text|raw" out of "TEXT:{json,text,raw}", which is how CLI11 names a set of values; any
/// other name as it is.
std::string readable_type(const std::string& type) {
  const std::size_t open = type.find('{');
  if (open == std::string::npos || type.back() != '}')
    return type;
  return CLI::detail::find_and_replace(type.substr(open + 1, type.size() - open - 2), ",", "|");
}

constexpr std::size_t kTerminalColumns = 80;
constexpr std::size_t kDescriptionColumn = 26;

/// The format of --help: like CLI11's own, but wrapped for a terminal of 80 columns: "-h, --help"
/// with a blank, sets of values as "json|text|raw", "(required)" or the default after the
/// description. To be set before the program gets subcommands. The manual pages are made from this
/// output by the starts of its lines.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { column_width(kDescriptionColumn); }

  std::string make_description(const CLI::App* app) const override {
    return wrapped(CLI::Formatter::make_description(app), 0, kTerminalColumns) + "\n";
  }

  std::string make_subcommand(const CLI::App* subcommand) const override {
    return make_row(subcommand->get_display_name(true), subcommand->get_description());
  }

  std::string make_option(const CLI::Option* option, bool is_positional) const override {
    return make_row(make_option_name(option, is_positional) + make_option_opts(option),
                    make_option_desc(option));
  }

  std::string make_option_name(const CLI::Option* option, bool is_positional) const override {
    return CLI::detail::find_and_replace(CLI::Formatter::make_option_name(option, is_positional),
                                         ",--", ", --");
  }

  std::string make_option_opts(const CLI::Option* option) const override {
    if (option->get_items_expected_max() == 0)  // a flag
      return "";
    const std::string type = option->get_positional() ? "" : readable_type(option->get_type_name());
    const bool many = option->get_expected_max() == CLI::detail::expected_max_vector_size;
    return (type.empty() ? "" : " " + type) + (many ? " ..." : "");
  }

  std::string make_option_desc(const CLI::Option* option) const override {
    std::string description = option->get_description();
    if (option->get_required())
      description += " (required)";
    if (!option->get_default_str().empty())
      description += " (default: " + option->get_default_str() + ")";
    return description;
  }

 private:
  std::string make_row(const std::string& name, const std::string& description) const {
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
};

/// How many letters have to be inserted, deleted, replaced or swapped with the next one to make one
/// word of the other.
std::size_t edits(const std::string& from, const std::string& to) {
  std::vector<std::vector<std::size_t>> count(from.size() + 1,
                                              std::vector<std::size_t>(to.size() + 1));
  for (std::size_t i = 0; i <= from.size(); ++i) {
    for (std::size_t j = 0; j <= to.size(); ++j) {
      if (i == 0 || j == 0) {
        count[i][j] = i + j;
        continue;
      }
      const bool same = from[i - 1] == to[j - 1];
      count[i][j] =
          std::min({count[i - 1][j - 1] + !same, count[i - 1][j] + 1, count[i][j - 1] + 1});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1])
        count[i][j] = std::min(count[i][j], count[i - 2][j - 2] + 1);
    }
  }
  return count.back().back();
}

/// The message for a word that is none of `words`, with the nearest of these if one is near.
std::string unknown(const std::string& what, const std::string& word,
                    const std::vector<std::string>& words) {
  std::size_t fewest = std::max<std::size_t>(word.size() / 3, 1) + 1;
  std::string message = "unknown " + what + " '" + word + "'", hint;
  for (const std::string& candidate : words) {
    if (const std::size_t count = edits(word, candidate); count < fewest) {
      fewest = count;
      hint = "; did you mean '" + candidate + "'?";
    }
  }
  return message + hint;
}

/// What is wrong with the first word that should be a subcommand or an option and is none; empty if
/// there is no such word. The parser would first complain of what is missing.
std::string unknown_word(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* command = &app;
  for (const std::string& word : words) {
    if (word == "--")
      break;
    const std::string name = word.substr(0, word.find('='));
    std::vector<std::string> known;
    if (word.size() > 1 && word[0] == '-' &&
        (word[1] == '-' || std::isalpha(static_cast<unsigned char>(word[1])))) {
      if (command->get_option_no_throw(word[1] == '-' ? name : word.substr(0, 2)))
        continue;
      for (const CLI::Option* option : command->get_options())
        known.push_back(option->get_name());
      return unknown("option", name, known);
    }
    if (command->get_require_subcommand_min() == 0)
      continue;
    const auto subcommands = command->get_subcommands({});
    for (const CLI::App* const subcommand : subcommands)
      known.push_back(subcommand->get_name());
    const auto named = std::find(known.begin(), known.end(), word);
    if (named == known.end()) {
      if (command == &app)
        known.push_back("help");
      return unknown("subcommand", word, known);
    }
    command = subcommands[static_cast<std::size_t>(named - known.begin())];
  }
  return "";
}

/// Opens the standard descriptors that are closed, so that no file or socket gets their number and
/// messages are written into it. Reading and writing data still fails.
bool hold_standard_descriptors() {
  const int useless[] = {O_WRONLY, O_RDONLY, O_WRONLY};
  for (int descriptor = 0; descriptor < 3; ++descriptor)
    if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", useless[descriptor]) < 0)
      return false;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (!hold_standard_descriptors())
    return kFailure;
  // When the reader of the output has gone, a write fails, which every command checks.
  signal(SIGPIPE, SIG_IGN);
  // So does a file that has reached the limit of its size.
  signal(SIGXFSZ, SIG_IGN);

  int exit_code = 0;
  CLI::App app("Tools around the log-writer plug-in Dravenholt::ZMQWriter", "zmqwriter");
  app.set_version_flag("-V,--version", "zmqwriter " ZMQWRITER_VERSION);
  app.formatter(std::make_shared<HelpFormatter>());
  app.footer("'zmqwriter help SUBCOMMAND' is the same as 'zmqwriter SUBCOMMAND --help'.");
  app.require_subcommand(1);
  add_keygen_command(app, &exit_code);
  add_collect_command(app, &exit_code);
  add_check_command(app, &exit_code);
  add_replay_command(app, &exit_code);
  add_decode_command(app, &exit_code);
  add_spool_command(app, &exit_code);
  add_completion_command(app, &exit_code);

  if (argc > 1 && std::strcmp(argv[1], "__complete") == 0) {
    std::fputs(complete(app, {argv + 2, argv + argc}).c_str(), stdout);
    return 0;
  }
  std::vector<std::string> words(argv + 1, argv + argc);
  if (!words.empty() && words[0] == "help") {
    const bool of_itself = words.size() > 1 && words[1] == "help";
    words.erase(words.begin(), words.begin() + (of_itself ? 2 : 1));
    words.push_back("--help");
  }
  if (const std::string mistake = unknown_word(app, words); !mistake.empty()) {
    std::fprintf(stderr, "%s\nRun with --help for more information.\n", mistake.c_str());
    return kWrongUsage;
  }
  try {
    std::reverse(words.begin(), words.end());  // as the parser expects them
    app.parse(words);
  } catch (const CLI::ParseError& error) {
    exit_code = app.exit(error) == 0 ? 0 : kWrongUsage;
  } catch (const std::exception& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "zmqwriter: %s\n", error.what());
    exit_code = kFailure;
  }
  return exit_code;
}
