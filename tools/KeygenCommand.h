// zmqwriter keygen: makes a collector's CURVE key pair.
#pragma once

namespace CLI {
class App;
}

void add_keygen_command(CLI::App& app, int* exit_code);
