// zmqwriter decode: raw event messages to JSON.
#pragma once

namespace CLI {
class App;
}

void add_decode_command(CLI::App& app, int* exit_code);
