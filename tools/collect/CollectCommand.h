// zmqwriter collect: the reference collector.
#pragma once

namespace CLI {
class App;
}

void add_collect_command(CLI::App& app, int* exit_code);
