#include "threading/BasicThread.h"

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include "MainThread.h"

namespace threading {

namespace {

// While it exists, threads that are created start with all signals blocked but those of faults.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGFPE, SIGILL, SIGSEGV, SIGBUS})
      sigdelset(&blocked, fault);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous_);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

 private:
  sigset_t previous_;
};

[[noreturn]] void die(const std::string& name, const char* what, const char* problem) {
  fprintf(stderr, "wrong thread: %s of %s %s\n", what, name.c_str(), problem);
  abort();
}

}  // namespace

BasicThread::BasicThread() : name("thread"), started(false), terminating(false), killed(false) {}

BasicThread::~BasicThread() {
  if (thread.joinable())
    die(name, "destruction", "before its thread was joined");
}

void BasicThread::SetName(const char* arg_name) {
  RequireMain("SetName");
  name = arg_name;
}

void BasicThread::SetOSName(const char* os_name) {
  RequireChild("SetOSName");
#if defined(__linux__)
  prctl(PR_SET_NAME, os_name, 0, 0, 0);
#elif defined(__APPLE__)
  pthread_setname_np(os_name);
#else
  (void)os_name;
#endif
}

void BasicThread::Start() {
  RequireMain("Start");
  if (started)
    return;
  started = true;
  BlockedSignals blocked;
  thread = std::thread(Launch, this);
}

void BasicThread::Launch(BasicThread* self) {
  self->child = std::this_thread::get_id();
  self->Run();
  self->Done();
}

void BasicThread::SignalStop() {
  RequireMain("SignalStop");
  if (started && !terminating)
    OnSignalStop();
}

void BasicThread::Join() {
  RequireMain("Join");
  if (thread.joinable())
    thread.join();
}

void BasicThread::Kill() {
  RequireMain("Kill");
  terminating = true;
  killed = true;
  OnKill();
}

void BasicThread::Done() {
  terminating = true;
  killed = true;
}

void BasicThread::RequireChild(const char* what) const {
  if (started && child.load(std::memory_order_relaxed) != std::this_thread::get_id())
    die(name, what, "belongs to its own thread");
}

void BasicThread::RequireMain(const char* what) const {
  if (!started)
    return;
  if (child.load(std::memory_order_relaxed) == std::this_thread::get_id() ||
      !host::on_main_thread())
    die(name, what, "belongs to the host's main thread");
}

}  // namespace threading
