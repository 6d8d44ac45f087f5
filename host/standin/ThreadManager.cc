#include "ThreadManager.h"

#include <unistd.h>

#include <vector>

#include "HostReporter.h"
#include "logging/WriterFrontend.h"

threading::Manager* thread_mgr = nullptr;

namespace threading {

void Manager::Add(MsgThread* thread, logging::WriterFrontend* frontend) {
  threads.push_back(thread);
  frontends[thread] = frontend;
}

void Manager::Terminate() {
  // Threads that have ended by now are deleted while the others still work off their queues.
  while (Process()) {
  }
  for (MsgThread* thread : threads)
    thread->SignalStop();
  for (MsgThread* thread : threads) {
    while (!thread->Killed()) {
      if (!DrainOut())
        usleep(1000);
    }
  }
  DrainOut();
  while (!threads.empty())
    Delete(threads.front());
}

bool Manager::Process() {
  std::vector<MsgThread*> ended;
  const bool handled = DrainOut();
  for (MsgThread* thread : threads) {
    if (thread->Killed())
      ended.push_back(thread);
  }
  DrainOut();  // what they posted before they ended
  for (MsgThread* thread : ended)
    Delete(thread);
  return handled || !ended.empty();
}

bool Manager::DrainOut() {
  bool handled = false;
  for (MsgThread* thread : threads) {
    while (BasicOutputMessage* msg = thread->RetrieveOut()) {
      if (!msg->Process()) {
        host::any_reporter().Error("%s failed, terminating thread", msg->Name());
        thread->SignalStop();
      }
      delete msg;
      handled = true;
    }
  }
  return handled;
}

void Manager::Delete(MsgThread* thread) {
  frontends[thread]->SetDisable();
  frontends.erase(thread);
  threads.remove(thread);
  thread->Join();
  delete thread;
}

void Manager::SendHeartbeats() {
  for (MsgThread* thread : threads)
    thread->Heartbeat();
}

uint64_t Manager::PendingIn() const {
  uint64_t pending = 0;
  for (MsgThread* thread : threads) {
    MsgThread::Stats stats;
    thread->GetStats(&stats);
    pending += stats.pending_in;
  }
  return pending;
}

}  // namespace threading
