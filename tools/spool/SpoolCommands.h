// zmqwriter spool list|dump|repair: what lies on disk, and what an unclean stop left behind.
#pragma once

namespace CLI {
class App;
}

void add_spool_command(CLI::App& app, int* exit_code);
