#include "threading/MsgThread.h"

#include <unistd.h>

#include <string>

#include "HostReporter.h"

namespace threading {

// Messages to the child.

class HeartbeatMessage final : public InputMessage<MsgThread> {
 public:
  HeartbeatMessage(MsgThread* thread, double arg_network_time, double arg_current_time)
      : InputMessage<MsgThread>("Heartbeat", thread),
        network_time_(arg_network_time),
        current_time_(arg_current_time) {}

  bool Process() override { return Object()->OnHeartbeat(network_time_, current_time_); }

 private:
  double network_time_;
  double current_time_;
};

class FinishMessage final : public InputMessage<MsgThread> {
 public:
  FinishMessage(MsgThread* thread, double arg_network_time)
      : InputMessage<MsgThread>("Finish", thread), network_time_(arg_network_time) {}

  // The thread ends anyway: failing makes an error report, nothing else.
  bool Process() override {
    if (!Object()->OnFinish(network_time_))
      Object()->Error("terminating thread");
    Object()->finished = true;
    return true;
  }

 private:
  double network_time_;
};

// Messages to the main thread.

class KillMeMessage final : public OutputMessage<MsgThread> {
 public:
  explicit KillMeMessage(MsgThread* thread) : OutputMessage<MsgThread>("KillMe", thread) {}

  bool Process() override {
    Object()->Kill();
    return true;
  }
};

class ReporterMessage final : public OutputMessage<MsgThread> {
 public:
  typedef void (Reporter::*Method)(const char* fmt, ...);

  ReporterMessage(Method method, MsgThread* thread, const char* text)
      : OutputMessage<MsgThread>("Reporter", thread), method_(method), text_(text) {}

  bool Process() override {
    (host::any_reporter().*method_)("%s: %s", Object()->Name(), text_.c_str());
    return true;
  }

 private:
  Method method_;
  std::string text_;
};

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
  SendOut(new ReporterMessage(&Reporter::Error, this, msg));
}

void MsgThread::InternalWarning(const char* msg) {
  SendOut(new ReporterMessage(&Reporter::InternalWarning, this, msg));
}

void MsgThread::GetStats(Stats* stats) {
  stats->sent_in = cnt_sent_in;
  stats->sent_out = cnt_sent_out;
  stats->pending_in = queue_in.Size();
  stats->pending_out = queue_out.Size();
}

void MsgThread::Heartbeat() {
  SendIn(new HeartbeatMessage(this, network_time, current_time()));
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
  SendOut(new KillMeMessage(this), true);
}

void MsgThread::OnSignalStop() {
  if (stop_signaled || Killed())
    return;
  stop_signaled = true;
  SendIn(new FinishMessage(this, network_time), true);
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
