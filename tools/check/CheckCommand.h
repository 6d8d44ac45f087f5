// zmqwriter check: looks over a configuration before it is used.
#pragma once

namespace CLI {
class App;
}

void add_check_command(CLI::App& app, int* exit_code);
