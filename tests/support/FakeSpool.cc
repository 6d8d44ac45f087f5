#include "FakeSpool.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "CallLog.h"
#include "PersistentQueue.h"

namespace {

std::mutex guard;
std::vector<std::string> bodies;
int empty_promises = 0;

using Lock = std::lock_guard<std::mutex>;

void log(const std::string& line) {
  test::CallLog::instance().add(line);
}

}  // namespace

namespace test {

void FakeSpool::reset() {
  Lock lock(guard);
  bodies.clear();
  empty_promises = 0;
}

std::vector<std::string> FakeSpool::contents() {
  Lock lock(guard);
  return bodies;
}

void FakeSpool::put(const std::string& body) {
  Lock lock(guard);
  bodies.push_back(body);
}

void FakeSpool::promise_nothing(int count) {
  Lock lock(guard);
  empty_promises = count;
}

}  // namespace test

// A member of the queue; the fake never reads by it.
void HeadReader::drop_window() {}

PersistentQueue::PersistentQueue() {
  log(".spool_open");
}

PersistentQueue::~PersistentQueue() {
  log(".spool_close");
}

void PersistentQueue::SetLimits(int32_t chunk_limit_bytes, int32_t total_limit_bytes) {
  log(".spool_limits " + std::to_string(chunk_limit_bytes) + " " +
      std::to_string(total_limit_bytes));
}

void PersistentQueue::Store(uint16_t length, const void* data) {
  const std::string body(static_cast<const char*>(data), length);
  {
    Lock lock(guard);
    bodies.push_back(body);
  }
  log("spool store '" + body + "'");
}

void* PersistentQueue::Get(uint16_t* length) {
  std::string body;
  bool nothing;
  {
    Lock lock(guard);
    nothing = empty_promises > 0 || bodies.empty();
    if (empty_promises > 0) {
      empty_promises -= 1;
    } else if (!bodies.empty()) {
      body = bodies.back();
      bodies.pop_back();
    }
  }
  log(nothing ? "spool get nothing" : "spool get '" + body + "'");
  *length = static_cast<uint16_t>(body.size());
  if (nothing)
    return nullptr;
  void* block = std::malloc(body.size() + 1);
  std::memcpy(block, body.data(), body.size());
  return block;
}

bool PersistentQueue::IsEmpty() const {
  Lock lock(guard);
  return bodies.empty() && empty_promises == 0;
}
