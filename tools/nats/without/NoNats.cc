// In place of what needs libnats, where the program is built without it.

#include <stdexcept>

#include "EngineCheck.h"
#include "JetStreamOptions.h"
#include "StreamReader.h"

namespace zmqwriter {

namespace {

[[noreturn]] void fail() {
  throw std::runtime_error(
      "this zmqwriter was built without NATS; install libnats-dev (Debian, Ubuntu) or cnats "
      "(Homebrew) and build it again");
}

}  // namespace

std::unique_ptr<EventSink> make_jetstream_sink(const JetStreamOptions&, CollectStats*) {
  fail();
}

EngineReport check_engine(const NatsOptions&, Findings*) {
  fail();
}

int read_stream(const ReadOptions&) {
  fail();
}

}  // namespace zmqwriter
