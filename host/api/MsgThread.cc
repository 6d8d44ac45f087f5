#include "threading/MsgThread.h"

#include <unistd.h>

#include <string>

#include "Call.h"
#include "HostReporter.h"

namespace threading {

Message::Message(const char* arg_name) : name(copy_string(arg_name)) {}

Message::~Message() {
  delete[] name;
}

MsgThread::MsgThread()
    : cnt_sent_in(0), cnt_sent_out(0), finished(false), stop_signaled(false), failed(false) {}

MsgThread::~MsgThread() {
  while (BasicInputMessage* msg = queue_in.TryGet())
    delete msg;
  while (BasicOutputMessage* msg = queue_out.TryGet())
    delete msg;
}

void MsgThread::SendIn(BasicInputMessage* msg, bool force) {
  if (Killed() || (Terminating() && !force)) {
    delete msg;
    return;
  }
  RequireMain("SendIn");
  ++cnt_sent_in;
  queue_in.Put(msg);
}

void MsgThread::SendOut(BasicOutputMessage* msg, bool force) {
  if (Killed() || (Terminating() && !force)) {
    delete msg;
    return;
  }
  RequireChild("SendOut");
  ++cnt_sent_out;
  queue_out.Put(msg);
}

void MsgThread::Error(const char* msg) {
  SendOut(new host::OutputCall("Reporter", [this, text = std::string(msg)] {
    host::any_reporter().Error("%s: %s", Name(), text.c_str());
    return true;
  }));
}

void MsgThread::InternalWarning(const char* msg) {
  SendOut(new host::OutputCall("Reporter", [this, text = std::string(msg)] {
    host::any_reporter().InternalWarning("%s: %s", Name(), text.c_str());
    return true;
  }));
}

void MsgThread::GetStats(Stats* stats) {
  stats->sent_in = cnt_sent_in;
  stats->sent_out = cnt_sent_out;
  stats->pending_in = queue_in.Size();
  stats->pending_out = queue_out.Size();
}

void MsgThread::Heartbeat() {
  SendIn(new host::InputCall("Heartbeat", [this, network = network_time, now = current_time()] {
    return OnHeartbeat(network, now);
  }));
}

void MsgThread::Run() {
  while (!finished && !Killed()) {
    BasicInputMessage* msg = queue_in.Get();
    if (!msg)
      continue;
    const bool success = msg->Process();
    delete msg;
    if (!success)
      Fail();
  }
}

// What is still in the queue is taken and dropped until the main thread has killed this one.
void MsgThread::Fail() {
  if (failed)
    return;
  failed = true;
  Error("terminating thread");
  const auto kill = [this] {
    Kill();
    return true;
  };
  SendOut(new host::OutputCall("KillMe", kill), true);
}

void MsgThread::OnSignalStop() {
  if (stop_signaled || Killed())
    return;
  stop_signaled = true;
  const auto finish = [this, network = network_time] {
    // The thread ends anyway: a failure is reported, nothing else.
    if (!OnFinish(network))
      Error("terminating thread");
    finished = true;
    return true;
  };
  SendIn(new host::InputCall("Finish", finish), true);
}

void MsgThread::OnWaitForStop() {
  while (!Killed())
    usleep(1000);
}

void MsgThread::OnKill() {
  queue_in.WakeUp();
}

BasicOutputMessage* MsgThread::RetrieveOut() {
  return queue_out.TryGet();
}

}  // namespace threading
