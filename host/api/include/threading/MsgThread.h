// A thread that is driven by messages.
//
// Messages to the child (SendIn) and messages to the main thread (SendOut) are handled in the
// order in which they were posted. Whoever posts a message gives it away. A message that is
// posted after the thread was marked as terminating or killed is deleted unseen.
#pragma once

#include <stdint.h>

#include "threading/BasicThread.h"
#include "threading/Queue.h"

using namespace std;

namespace threading {

class BasicInputMessage;
class BasicOutputMessage;
class Manager;

class MsgThread : public BasicThread {
 public:
  /// Main.
  MsgThread();

  /// Main to child.
  void SendIn(BasicInputMessage* msg) { SendIn(msg, false); }
  /// Child to main.
  void SendOut(BasicOutputMessage* msg) { SendOut(msg, false); }

  // Child. A finished text, not a format. The main thread later calls the Reporter method of the
  // same name with "<Name()>: <msg>".
  void Error(const char* msg);
  void InternalWarning(const char* msg);

  struct Stats {
    uint64_t sent_in;
    uint64_t sent_out;
    uint64_t pending_in;
    uint64_t pending_out;
  };
  void GetStats(Stats* stats);

 protected:
  friend class Manager;

  /// Deletes what was not handled.
  virtual ~MsgThread();

  /// Main: posts the heartbeat. Overriders must call the parent.
  virtual void Heartbeat();
  /// Child. False ends the thread.
  virtual bool OnHeartbeat(double network_time, double current_time) = 0;
  /// Child: the last one.
  virtual bool OnFinish(double network_time) = 0;

  virtual void Run();
  virtual void OnWaitForStop();
  virtual void OnSignalStop();
  virtual void OnKill();

  /// Child: whether a message failed.
  bool Failed() const { return failed; }

  /// Main: the next message from the child; 0 if there is none.
  BasicOutputMessage* RetrieveOut();

 private:
  void SendIn(BasicInputMessage* msg, bool force);
  void SendOut(BasicOutputMessage* msg, bool force);
  void Fail();

  Queue<BasicInputMessage*> queue_in;
  Queue<BasicOutputMessage*> queue_out;
  std::atomic<uint64_t> cnt_sent_in;
  std::atomic<uint64_t> cnt_sent_out;
  bool finished;       // child
  bool stop_signaled;  // main
  bool failed;         // child
};

class Message {
 public:
  virtual ~Message();

  const char* Name() const { return name; }
  /// False ends the thread that the message belongs to.
  virtual bool Process() = 0;

 protected:
  explicit Message(const char* arg_name);

 private:
  Message(const Message&);
  Message& operator=(const Message&);

  const char* name;
};

/// Processed on the child.
class BasicInputMessage : public Message {
 protected:
  explicit BasicInputMessage(const char* name) : Message(name) {}
};

/// Processed on the main thread.
class BasicOutputMessage : public Message {
 protected:
  explicit BasicOutputMessage(const char* name) : Message(name) {}
};

template <typename O>
class InputMessage : public BasicInputMessage {
 public:
  O* Object() const { return object; }

 protected:
  InputMessage(const char* name, O* arg_object) : BasicInputMessage(name), object(arg_object) {}

 private:
  O* object;
};

template <typename O>
class OutputMessage : public BasicOutputMessage {
 public:
  O* Object() const { return object; }

 protected:
  OutputMessage(const char* name, O* arg_object) : BasicOutputMessage(name), object(arg_object) {}

 private:
  O* object;
};

}  // namespace threading
