// A message between the threads whose work is a function.
#pragma once

#include <functional>
#include <utility>

#include "threading/MsgThread.h"

namespace host {

template <typename Message>
class Call final : public Message {
 public:
  /// `work` returns false to end the thread that the message belongs to.
  Call(const char* name, std::function<bool()> work) : Message(name), work_(std::move(work)) {}

  bool Process() override { return work_(); }

 private:
  std::function<bool()> work_;
};

typedef Call<threading::BasicInputMessage> InputCall;
typedef Call<threading::BasicOutputMessage> OutputCall;

}  // namespace host
