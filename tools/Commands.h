// The subcommands of zmqwriter. Each function adds one to the program; when it is the one that was
// called, it runs while the command line is parsed and sets `exit_code`.
#pragma once

#include <string>
#include <vector>

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

/// Answers the completion scripts. `words` follow the program's name; the last one is to be
/// completed and may be empty. The first line of the answer is "-f" for names of files, "-d" for
/// names of folders or nothing, a tab, and what stands in front of a value in its word, such as
/// "--output="; each further line is a candidate, a tab, and its description.
std::string complete(const CLI::App& app, const std::vector<std::string>& words);

}  // namespace zmqwriter
