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
#include <string>
#include <vector>

#include "Commands.h"
#include "HelpFormatter.h"

namespace {

using namespace zmqwriter;

constexpr int kFailure = 1;
constexpr int kWrongUsage = 2;

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
