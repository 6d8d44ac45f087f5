#include <algorithm>
#include <vector>

#include "HostReporter.h"
#include "standin/MainThread.h"
#include "threading/Manager.h"

threading::Manager* thread_mgr = nullptr;

namespace threading {

Manager::Manager() : terminating(false) {}

Manager::~Manager() {
  Terminate();
}

void Manager::Terminate() {
  standin::require_main_thread("threading::Manager::Terminate");
  terminating = true;
  // Threads that have ended by now are deleted while the others still work off their queues.
  while (ProcessOut()) {
  }
  for (BasicThread* thread : all_threads)
    thread->SignalStop();
  for (BasicThread* thread : all_threads)
    thread->WaitForStop();
  while (!all_threads.empty())
    Delete(all_threads.front());
  terminating = false;
}

bool Manager::ProcessOut() {
  standin::require_main_thread("threading::Manager::ProcessOut");
  const bool handled = DrainOut();
  return ReapEnded() || handled;
}

bool Manager::DrainOut() {
  bool handled = false;
  for (MsgThread* thread : msg_threads) {
    while (BasicOutputMessage* msg = thread->RetrieveOut()) {
      if (!msg->Process()) {
        standin::host_reporter().Error("%s failed, terminating thread", msg->Name());
        thread->SignalStop();
      }
      delete msg;
      handled = true;
    }
  }
  return handled;
}

bool Manager::ReapEnded() {
  std::vector<BasicThread*> ended;
  for (BasicThread* thread : all_threads) {
    if (thread->Killed())
      ended.push_back(thread);
  }
  for (BasicThread* thread : ended)
    Delete(thread);
  return !ended.empty();
}

void Manager::Delete(BasicThread* thread) {
  RemoveThread(thread);
  thread->Join();
  delete thread;
}

void Manager::SendHeartbeats() {
  standin::require_main_thread("threading::Manager::SendHeartbeats");
  for (MsgThread* thread : msg_threads)
    thread->Heartbeat();
}

uint64_t Manager::PendingIn() const {
  uint64_t pending = 0;
  for (const MsgThread* thread : msg_threads)
    pending += thread->PendingIn();
  return pending;
}

void Manager::KillThread(BasicThread* thread) {
  thread->Kill();
}

void Manager::AddThread(BasicThread* thread) {
  all_threads.push_back(thread);
}

void Manager::AddMsgThread(MsgThread* thread) {
  msg_threads.push_back(thread);
}

void Manager::RemoveThread(BasicThread* thread) {
  all_threads.remove(thread);
  // Not by remove(): a thread that is being destroyed is no MsgThread any more.
  msg_threads.remove_if([thread](MsgThread* other) { return other == thread; });
}

}  // namespace threading
