// The host's table of threads. All of it belongs to the main thread.
#pragma once

#include <stdint.h>

#include <list>

#include "threading/MsgThread.h"

namespace threading {

class Manager {
 public:
  /// Takes over a thread, which was not started yet.
  void Add(MsgThread* thread) { threads.push_back(thread); }

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
};

}  // namespace threading

extern threading::Manager* thread_mgr;
