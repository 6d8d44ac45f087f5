// The connections of clients at the end of a collector.
//
// libzmq can only close connections, and then loses what clients have sent and it has not read yet.
// Here the sending side of a connection is ended instead: the client's libzmq closes the connection
// behind all that it has sent, and libzmq receives that and closes its own side.
//
// What a client sends in the moment when it learns of the end is lost. So a connection is ended
// shortly after a message: agents send what has gathered every 100 ms. One thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace zmqwriter {

class Connections {
 public:
  /// Finds the connections of this process to `endpoints`, which are as ZMQ_LAST_ENDPOINT gives
  /// them.
  explicit Connections(const std::vector<std::string>& endpoints);

  /// False when libzmq has received everything from all of them.
  bool any() const { return !open_.empty(); }

  /// A message has come from this descriptor (ZMQ_SRCFD; -1 if that is not known).
  void NoteMessage(int descriptor);

  /// Ends the sending side of those that are silent, or of `all`, but not while something waits to
  /// be received, unless `forced`. Forgets those that libzmq has closed. To be called every few
  /// milliseconds.
  void EndSilent(bool all, bool forced);

 private:
  using Clock = std::chrono::steady_clock;

  struct Connection {
    ino_t inode;  // tells it from a later one with the same descriptor
    Clock::time_point end_at;
  };

  std::map<int, Connection> open_;  // by descriptor
};

}  // namespace zmqwriter
