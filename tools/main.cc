// zmqwriter: the tools around the plug-in, one subcommand per job.
//
// Exit status: 0 success, 1 failure, 2 wrong usage. Data goes to standard output, everything else
// to standard error.

#include <fcntl.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

#include "Commands.h"
#include "HelpFormatter.h"

namespace {

using namespace zmqwriter;

constexpr int kFailure = 1;
constexpr int kWrongUsage = 2;

/// The first word that should be a subcommand and is not; null if there is none.
const char* unknown_subcommand(const CLI::App& app, int argc, char** argv) {
  const CLI::App* command = &app;
  for (int i = 1; i < argc && argv[i][0] != '-'; ++i) {
    const auto named = command->get_subcommands(
        [word = argv[i]](const CLI::App* candidate) { return candidate->check_name(word); });
    if (named.empty())
      return command->get_require_subcommand_min() > 0 ? argv[i] : nullptr;
    command = named.front();
  }
  return nullptr;
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
  app.set_version_flag("--version", "zmqwriter " ZMQWRITER_VERSION);
  app.formatter(std::make_shared<HelpFormatter>());
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
  if (const char* const word = unknown_subcommand(app, argc, argv)) {
    std::fprintf(stderr, "unknown subcommand '%s'\nRun with --help for more information.\n", word);
    return kWrongUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    exit_code = app.exit(error) == 0 ? 0 : kWrongUsage;
  } catch (const std::exception& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "zmqwriter: %s\n", error.what());
    exit_code = kFailure;
  }
  return exit_code;
}
