// Feeds logs through the plug-in, in the stand-in host.
//
// Each log has its own writer, which runs in its own thread. The logs are read in turn, a record at
// a time, on the calling thread. When the header of a log changes, a new writer continues.
//
// Pace. The plug-in keeps 500 records in memory and puts further ones on disk, from where they come
// back newest first. A replay pauses while 400 records are not yet sent, so the disk stays unused
// while a server takes records. Without pace the logs are read as fast as possible, as a host under
// load does it.
//
// Drain. When all is read, the replay waits until the plug-in holds no record in memory and on
// disk. It gives up when no record was sent for the drain time. The same limit holds for a pause.
//
// A record of more than 65535 bytes is cut on disk. The plug-in counts these, and the replay fails.
//
// SIGINT, SIGTERM and SIGHUP end the reading. The records not yet sent get a few seconds, then the
// plug-in is stopped in the host's order. EndWatch.h says how long that takes at most.
//
// Follow. The logs grow and rotate, and reading goes on until a signal or a failure of the plug-in;
// it waits for a server as long as it takes. The logs on disk are the buffer: with pace nothing
// goes to the spool. Handover.h says when positions are written.
//
// A spool that another process uses, or of which the plug-in would not find all records, is
// refused. At the end the records on disk are counted and compared with what should be there.
#pragma once

#include <string>
#include <vector>

#include "PluginUse.h"

namespace zmqwriter {

struct ReplayOptions : PluginOptions {
  std::vector<std::string> logs;
  double rate = 0;  ///< records per second, all logs together; 0: no limit
  double drain_s = 60;
  bool pace = true;
  std::string state_file;     ///< follow the logs, with their positions in this file
  bool ignore_spool = false;  ///< start although the spool is damaged or in use
};

/// Replays the logs and reports on standard error. Returns the exit status: 0 if every line of
/// every log was read and every record was sent whole. Throws standin::HostError and
/// std::runtime_error when it cannot begin.
int replay(const ReplayOptions& options);

/// Loads the plug-in and prints what the host prints about it, without (-N) or with (-NN) details.
int describe_plugin(const ReplayOptions& options, bool details);

}  // namespace zmqwriter
