// zmqwriter completion: what makes a shell complete the program's words.
#pragma once

namespace CLI {
class App;
}

/// Adds the command to `app`, the root of the program, whose subcommands and options it walks when
/// it runs: what is added to `app` before or after is in the scripts, too.
void add_completion_command(CLI::App& app, int* exit_code);
