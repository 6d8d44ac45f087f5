// The host's table of threads, which are all writers'. All of it belongs to the main thread.
#pragma once

#include <stdint.h>

#include <list>
#include <map>

#include "threading/MsgThread.h"

namespace logging {
class WriterFrontend;
}

namespace threading {

class Manager {
 public:
  /// Takes over a thread, which was not started yet. Its frontend, which must outlive it, is
  /// disabled when the thread is deleted.
  void Add(MsgThread* thread, logging::WriterFrontend* frontend);

  /// Finishes every thread. First handles messages, and joins and deletes threads that have ended,
  /// until nothing more comes, while the others still work. Then signals the rest to stop, waits
  /// for each in order of creation (while handling their messages), joins and deletes them. No time
  /// limit.
  void Terminate();

  /// Handles what the threads posted, then joins and deletes the threads that have ended. Returns
  /// whether there was anything.
  bool Process();
  /// Posts a heartbeat to every thread.
  void SendHeartbeats();
  /// Messages that no thread has taken yet, all threads together.
  uint64_t PendingIn() const;

 private:
  bool DrainOut();
  void Delete(MsgThread* thread);

  std::list<MsgThread*> threads;  // in order of creation
  std::map<MsgThread*, logging::WriterFrontend*> frontends;
};

}  // namespace threading

extern threading::Manager* thread_mgr;
