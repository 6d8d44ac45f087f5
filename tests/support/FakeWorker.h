// Stands in for src/ZmqWorker.cc: no sockets, no spool, no send thread. Keeps what the writers do
// with the worker, and complains where they do what would be a use after free with the real one.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace test {

/// What happened to the workers of this process since reset(). Thread-safe.
class FakeWorker {
 public:
  struct Connection {
    std::string server;
    std::string public_key;
    std::string secondary_servers;
  };

  /// Forgets everything; no worker may exist.
  static void reset();

  /// The arguments of each Init.
  static std::vector<Connection> inits();
  static int starts();
  static int stops();
  /// Workers that were deleted.
  static int deletions();
  /// The bodies given to Write, in order.
  static std::vector<std::string> messages();
  static std::size_t message_count();
  /// Calls that the real worker would not survive: a second Init, Start before Init, Write before
  /// Start, during Stop or after it, Stop before Start.
  static std::vector<std::string> misuses();

  /// Makes the allocation of this thread fail that comes after `number` others; -1 for none. Only
  /// operator new is meant.
  static void fail_allocation(long number);

  /// Called inside Start, Write and Stop, by their thread, with "Start", "Write" or "Stop"; null
  /// for none. To be set while no worker exists.
  static void listen(std::function<void(const std::string& call)> listener);
};

}  // namespace test
