// The host's table of threads. All of it belongs to the main thread.
#pragma once

#include <list>

#include "threading/MsgThread.h"

namespace threading {

class Manager {
 public:
  Manager();
  ~Manager();

  /// Finishes every thread: signal to all, then in order of creation wait (while handling their
  /// messages), join, delete. No time limit.
  void Terminate();
  bool Terminating() const { return terminating; }

  /// Handles what the threads posted; ends those that failed. Returns whether there was anything.
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
