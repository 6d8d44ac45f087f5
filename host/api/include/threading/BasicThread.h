// An OS thread of the host.
//
// "Main" is the host's main thread, "child" the OS thread that the object stands for. A method
// called on the wrong one ends the process with a text that says so, as soon as the thread was
// started (before that there is no child, and a test may call what it likes).
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "util.h"

using namespace std;

namespace threading {

class Manager;

class BasicThread {
 public:
  /// Main. Registers with thread_mgr (if there is one), which will delete it.
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
  void WaitForStop();

  // Any thread.
  bool Terminating() const { return terminating; }
  bool Killed() const { return killed; }

  /// Child. Like sprintf, into one buffer of this object: good until the next call.
  const char* Fmt(const char* format, ...);
  /// Child. Text of an errno, in a buffer of this object. The host's own may be garbage with
  /// glibc: use strerror_r.
  const char* Strerror(int err);

 protected:
  friend class Manager;

  /// Child: the thread's work.
  virtual void Run() = 0;
  /// Main, after the OS thread was created.
  virtual void OnStart() {}
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

  bool Started() const { return started; }
  /// Ends the process unless called on the child.
  void RequireChild(const char* what) const;
  /// Ends the process unless called on the main thread.
  void RequireMain(const char* what) const;

 private:
  BasicThread(const BasicThread&);
  BasicThread& operator=(const BasicThread&);

  static void Launch(BasicThread* self);

  string name;
  std::thread thread;                  // main
  std::atomic<std::thread::id> child;  // set by the child itself
  std::atomic<bool> started;
  std::atomic<bool> terminating;
  std::atomic<bool> killed;
  vector<char> buffer;      // child
  char strerr_buffer[256];  // child
};

}  // namespace threading
