// The host's table of threads. All of it belongs to the main thread.
#pragma once

#include <list>

#include "threading/MsgThread.h"

namespace threading {

class Manager {
 public:
  Manager();
  ~Manager();

  /// Finishes every thread. First handles messages, and joins and deletes threads that have ended,
  /// until nothing more comes, while the others still work. Then signals the rest to stop, waits
  /// for each in order of creation (while handling their messages), joins and deletes them. No time
  /// limit.
  void Terminate();
  bool Terminating() const { return terminating; }

  /// Handles what the threads posted, then joins and deletes the threads that have ended. Returns
  /// whether there was anything.
  bool ProcessOut();
  /// Posts a heartbeat to every thread.
  void SendHeartbeats();
  /// Messages that no thread has taken yet, all threads together.
  uint64_t PendingIn() const;
  int NumThreads() const { return static_cast<int>(all_threads.size()); }

  /// Stops `thread` without OnFinish; it is joined and deleted at the next ProcessOut.
  void KillThread(BasicThread* thread);

 protected:
  friend class BasicThread;
  friend class MsgThread;

  void AddThread(BasicThread* thread);
  void AddMsgThread(MsgThread* thread);
  /// A thread that is deleted by somebody else.
  void RemoveThread(BasicThread* thread);

 private:
  Manager(const Manager&);
  Manager& operator=(const Manager&);

  bool DrainOut();
  bool ReapEnded();
  void Delete(BasicThread* thread);

  std::list<BasicThread*> all_threads;  // in order of creation
  std::list<MsgThread*> msg_threads;    // those of them with messages
  bool terminating;
};

}  // namespace threading

extern threading::Manager* thread_mgr;
