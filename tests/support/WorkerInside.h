// The private members of a worker that tests read or set. Only this unit names them, and it is
// compiled without access control.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <queue>
#include <string>
#include <vector>

#include "ZmqWorker.h"

namespace test {

struct WorkerInside {
  explicit WorkerInside(logging::writer::ZmqWorker* worker);

  /// The socket to the primary, and a send thread that runs: as after Start, without the thread.
  void connect();
  /// Stop, where the test is the send thread; the thread that is joined ends at once.
  void stop();
  /// Frees and forgets what waits, and gives it, oldest first.
  std::vector<std::string> take_queue();

  logging::writer::ZmqWorker& worker;
  std::string& server;
  std::vector<std::string>& secondary_servers;
  std::string& public_key;
  std::int64_t& main_fail_time;
  std::queue<logging::writer::zmq_message*>& queue;
  std::atomic<bool>& running;
  std::string& secondary_server;
  std::int32_t& secondary_index;
  void*& context;
  void*& socket;
  pthread_mutex_t& mutex;
  pthread_t& thread;
  std::atomic<std::uint64_t>& sent_count;
  std::atomic<std::uint64_t>& failed_count;
};

}  // namespace test
