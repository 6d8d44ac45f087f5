// The writer backend: what the host creates for each log stream whose filter uses "ZMQ".
//
// On a file system that does not tell upper from lower case, `#include <zmq.h>` finds this file.
// So it passes the include on, each time and before any guard: where the names differ that is
// libzmq's header too, and it guards itself. Clang warns that it searches from the first folder
// when this file was found beside the including one; which makes no difference here.
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Winclude-next-absolute-path"
#endif
#include_next <zmq.h>
#ifdef __clang__
#pragma clang diagnostic pop
#endif

#ifndef ZMQWRITER_SRC_ZMQ_H
#define ZMQWRITER_SRC_ZMQ_H

#include <string>

#include "AgentIdFile.h"  // directoryExists
#include "Reports.h"

#include "logging/WriterBackend.h"
#include "threading/formatters/Ascii.h"

namespace logging {
namespace writer {

/// Turns each record of one log stream into one event message and hands it to the delivery worker
/// that all writers of the process share.
///
/// Threads: the host constructs and destroys writers on its main thread and calls the Do*
/// operations on the writer's own, one after the other; those of different writers run at the same
/// time. DoWrite takes no lock but that of the worker's queue, and the shared worker's for reading.
///
/// The shared worker (SharedWorker.h) is created, initialised and started by the first writer that
/// the host initialises, and stopped and deleted by the first one that it destroys, whichever that
/// is. From then on DoWrite of the others returns false; a writer initialised later creates a new
/// worker.
///
/// Errors are reported (Reports.h) and never thrown; a failed allocation is fatal through the
/// host's out_of_memory.
class ZMQ : public WriterBackend {
 public:
  /// Reads the script constants and finds out the agent identifier.
  explicit ZMQ(WriterFrontend* frontend);
  /// Stops and deletes the shared worker if there is one: takes as long as its Stop. While the host
  /// ends, waits first until every other writer has worked off what the host has given it.
  ~ZMQ() override;

  /// The factory of the component "ZMQ"; the host owns the result.
  static WriterBackend* Instantiate(WriterFrontend* frontend);

  /// sprintf into a new block, which the caller frees with free(). Fatal without memory.
  static char* FS(const char* format, ...) __attribute__((format(printf, 1, 2)));

 protected:
  /// Keeps the field list, which stays the host's, and makes sure that the shared worker runs.
  /// Always true: what goes wrong is reported by the worker.
  bool DoInit(const WriterInfo& info, int num_fields,
              const threading::Field* const* fields) override;
  /// False only while there is no shared worker; the record is converted all the same.
  bool DoWrite(int num_fields, const threading::Field* const* fields,
               threading::Value** vals) override;

  // The writer buffers nothing, so there is nothing to do for these; all return true. DoRotate does
  // not report a finished rotation either, for which the host would end the process: rotation is
  // to be left off for this writer.
  bool DoSetBuf(bool enabled) override;
  bool DoFlush(double network_time) override;
  bool DoRotate(const char* rotated_path, double open, double close, bool terminating) override;
  bool DoFinish(double network_time) override;
  bool DoHeartbeat(double network_time, double current_time) override;

 private:
  /// Sets agent_id from the agent-id file; without one, from an identifier generated and stored
  /// there, which is the same for all writers of the process.
  void DetectAgentId();

  const threading::Field* const* fields;
  int num_fields;
  std::string agent_id;
  std::string set_separator;
  std::string unset_field;
  std::string empty_field;
  threading::formatter::Ascii* formatter;
  reports::WriterAlive alive;
};

}  // namespace writer
}  // namespace logging

#endif
