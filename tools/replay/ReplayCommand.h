// zmqwriter replay: the stand-in host, which feeds logs through the plug-in.
#pragma once

namespace CLI {
class App;
}

void add_replay_command(CLI::App& app, int* exit_code);
