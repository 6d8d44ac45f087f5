// An OS thread of the host.
//
// "Main" is the host's main thread, "child" the OS thread that the object stands for. A method
// called on the wrong one ends the process with a text that says so, as soon as the thread was
// started (before that there is no child, and a test may call what it likes).
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "util.h"

using namespace std;

namespace logging {
class WriterBackend;
}

namespace threading {

class BasicThread {
 public:
  /// Main.
  BasicThread();

  /// Any thread.
  const char* Name() const { return name.c_str(); }
  /// Main.
  void SetName(const char* name);
  /// Child. At most 15 characters show.
  void SetOSName(const char* name);

  // Main.
  void Start();
  void SignalStop();

  // Any thread.
  bool Terminating() const { return terminating; }
  bool Killed() const { return killed; }

 protected:
  friend class Manager;

  /// Child: the thread's work.
  virtual void Run() = 0;
  virtual void OnSignalStop() {}
  virtual void OnWaitForStop() = 0;
  virtual void OnKill() {}
  /// Main, after the thread was joined.
  virtual ~BasicThread();

  // Main.
  void Join();
  void Kill();

  /// Child, at its end: marks the thread as terminating and killed, so that it is deleted.
  void Done();

 private:
  friend class MsgThread;
  friend class logging::WriterBackend;

  BasicThread(const BasicThread&);
  BasicThread& operator=(const BasicThread&);

  static void Launch(BasicThread* self);

  /// Ends the process unless called on the child.
  void RequireChild(const char* what) const;
  /// Ends the process unless called on the main thread.
  void RequireMain(const char* what) const;

  string name;
  std::thread thread;                  // main
  std::atomic<std::thread::id> child;  // set by the child itself
  std::atomic<bool> started;
  std::atomic<bool> terminating;
  std::atomic<bool> killed;
};

}  // namespace threading
