#include "threading/MsgThread.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "HostReporter.h"
#include "threading/Manager.h"

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
    Object()->Finished();
    return true;
  }

 private:
  double network_time_;
};

// Messages to the main thread.

class FinishedMessage final : public OutputMessage<MsgThread> {
 public:
  explicit FinishedMessage(MsgThread* thread) : OutputMessage<MsgThread>("Finished", thread) {}

  bool Process() override {
    Object()->main_finished = true;
    return true;
  }
};

namespace {

class KillMeMessage final : public OutputMessage<MsgThread> {
 public:
  explicit KillMeMessage(MsgThread* thread) : OutputMessage<MsgThread>("KillMe", thread) {}

  bool Process() override {
    thread_mgr->KillThread(Object());
    return true;
  }
};

class ReporterMessage final : public OutputMessage<MsgThread> {
 public:
  enum Kind { kInfo, kWarning, kError, kFatalError, kFatalErrorWithCore, kInternalWarning };

  ReporterMessage(Kind kind, MsgThread* thread, const char* text)
      : OutputMessage<MsgThread>("Reporter", thread), kind_(kind), text_(text) {}

  bool Process() override {
    Reporter& to = standin::host_reporter();
    const char* name = Object()->Name();
    const char* text = text_.c_str();
    switch (kind_) {
      case kInfo:
        to.Info("%s: %s", name, text);
        break;
      case kWarning:
        to.Warning("%s: %s", name, text);
        break;
      case kError:
        to.Error("%s: %s", name, text);
        break;
      case kFatalError:
        to.FatalError("%s: %s", name, text);
        break;
      case kFatalErrorWithCore:
        to.FatalErrorWithCore("%s: %s", name, text);
        break;
      case kInternalWarning:
        to.InternalWarning("%s: %s", name, text);
        break;
    }
    return true;
  }

 private:
  Kind kind_;
  std::string text_;
};

}  // namespace

Message::Message(const char* arg_name) : name(copy_string(arg_name)) {}

Message::~Message() {
  delete[] name;
}

MsgThread::MsgThread()
    : cnt_sent_in(0),
      cnt_sent_out(0),
      child_finished(false),
      main_finished(false),
      stop_signaled(false),
      failed(false) {
  if (thread_mgr)
    thread_mgr->AddMsgThread(this);
}

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

void MsgThread::Info(const char* msg) {
  SendOut(new ReporterMessage(ReporterMessage::kInfo, this, msg));
}

void MsgThread::Warning(const char* msg) {
  SendOut(new ReporterMessage(ReporterMessage::kWarning, this, msg));
}

void MsgThread::Error(const char* msg) {
  SendOut(new ReporterMessage(ReporterMessage::kError, this, msg));
}

void MsgThread::FatalError(const char* msg) {
  SendOut(new ReporterMessage(ReporterMessage::kFatalError, this, msg));
}

void MsgThread::FatalErrorWithCore(const char* msg) {
  SendOut(new ReporterMessage(ReporterMessage::kFatalErrorWithCore, this, msg));
}

void MsgThread::InternalWarning(const char* msg) {
  SendOut(new ReporterMessage(ReporterMessage::kInternalWarning, this, msg));
}

void MsgThread::InternalError(const char* msg) {
  // The main thread is not asked: the process may be in no state to go on until it answers.
  fprintf(stderr, "internal error in thread: %s\n", msg);
  abort();
}

void MsgThread::GetStats(Stats* stats) {
  stats->sent_in = cnt_sent_in;
  stats->sent_out = cnt_sent_out;
  stats->pending_in = queue_in.Size();
  stats->pending_out = queue_out.Size();
  queue_in.GetStats(&stats->queue_in_stats);
  queue_out.GetStats(&stats->queue_out_stats);
}

void MsgThread::Heartbeat() {
  SendIn(new HeartbeatMessage(this, network_time, current_time()));
}

void MsgThread::Run() {
  while (!child_finished && !Killed()) {
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

void MsgThread::Finished() {
  child_finished = true;
  SendOut(new FinishedMessage(this), true);
}

void MsgThread::OnSignalStop() {
  if (stop_signaled || Killed())
    return;
  stop_signaled = true;
  SendIn(new FinishMessage(this, network_time), true);
}

void MsgThread::OnWaitForStop() {
  while (!main_finished && !Killed()) {
    if (!thread_mgr->DrainOut())
      usleep(1000);
  }
}

void MsgThread::OnKill() {
  queue_in.WakeUp();
}

BasicOutputMessage* MsgThread::RetrieveOut() {
  return queue_out.TryGet();
}

}  // namespace threading
