// The stand-in host at work: logs in, records through the plug-in.
//
// Each log gets a writer of its own, with its own thread; the logs are read in turn, a record at a
// time, on the calling thread. A log whose header changes on the way continues with a new writer.
//
// Pace. The plug-in keeps 500 records in memory and puts further ones on disk, from where they
// come back newest first. A replay knows no hurry: it never has more than 400 on their way,
// so that the disk is left alone as long as a server takes records at all. Without pace the logs
// are read as fast as they can be, as a host under load does it.
//
// Drain. When everything is read, the records still on their way get the time they need: the
// replay waits until the plug-in holds none in memory and on disk, and gives up when none was
// sent for the drain time. The same limit holds for a pause.
//
// What went to disk came back cut if it was longer than 65535 bytes. The plug-in counts that, and
// it is a failure of the replay.
//
// SIGINT and SIGTERM end the reading; what is on its way gets a few seconds, then the plug-in is
// stopped in the host's order. A signal during that last step ends the process at once; the account
// of what was read and sent so far stands by then.
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
};

/// Replays the logs and tells on standard error what became of the records. Returns the exit
/// status: 0 if every line of every log was read and every record was handed over whole. Throws
/// standin::HostError and std::runtime_error when it cannot begin.
int replay(const ReplayOptions& options);

/// Loads the plug-in and prints what the host prints about it, without (-N) or with (-NN) details.
int describe_plugin(const ReplayOptions& options, bool details);

}  // namespace zmqwriter
