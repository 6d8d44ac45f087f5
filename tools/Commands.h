// The subcommands of zmqwriter. Each function adds one to the program; when it is the one that was
// called, it runs while the command line is parsed and sets `exit_code`.
#pragma once

namespace CLI {
class App;
}

namespace zmqwriter {

void add_keygen_command(CLI::App& app, int* exit_code);
void add_collect_command(CLI::App& app, int* exit_code);
void add_check_command(CLI::App& app, int* exit_code);
void add_replay_command(CLI::App& app, int* exit_code);
void add_decode_command(CLI::App& app, int* exit_code);
void add_spool_command(CLI::App& app, int* exit_code);
void add_completion_command(CLI::App& app, int* exit_code);

}  // namespace zmqwriter
