// Watches who connects to a collector's socket, and counts and reports the connections that are
// refused: without that, an agent with a wrong key leaves no trace on the server.
//
// It also bounds the memory of the process. libzmq keeps the parts of a message until the last one
// has come, however many they are. So when the process uses max_memory, the connections that have
// received most since their last message was taken are ended, until half of it is free; what they
// hold is freed, and a message that was received whole is kept. New connections are ended at once
// while that is not enough. New connections that take the last open files are ended too, because
// the output and the status server need some, and libzmq's thread would not rest without any. A
// thread of its own does this even while the output blocks.
//
// libzmq does not say which connection has finished its handshake. The newest one whose outcome is
// not known is taken for it; so the counts are right, and the address in a report may be that of
// another client that connected at the same moment.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "CollectStats.h"
#include "PullSocket.h"
#include "Zmq.h"

namespace zmqwriter {

class ConnectionMonitor {
 public:
  static constexpr int kReported = 10;  // further refusals are only counted

  /// Reports on standard error unless `quiet`. `socket` and `stats` must outlive this. Call it
  /// before the socket is bound. Throws std::runtime_error.
  ConnectionMonitor(const ZmqContext& context, PullSocket* socket, CollectStats* stats, bool quiet,
                    std::uint64_t max_memory);
  ~ConnectionMonitor();
  ConnectionMonitor(const ConnectionMonitor&) = delete;
  ConnectionMonitor& operator=(const ConnectionMonitor&) = delete;

  /// A message of this descriptor (ZMQ_SRCFD) was taken. From any thread.
  void NoteMessage(int descriptor);

 private:
  enum class Ended { kNot, kMemory, kTooMany };
  struct Connection {
    std::string peer;
    std::uint64_t number;  // counted from the first
    bool connected;        // as far as is known
    std::uint64_t taken;   // bytes received before its last message was taken
    Ended ended;           // by this class
  };
  using Connections = std::map<std::int64_t, Connection>;  // by descriptor

  void Run();
  void Note(std::uint16_t event, std::uint32_t value);
  Connections::iterator NewestUnknown();
  void End(Connections::iterator connection);
  void LookAtMemory();
  std::uint64_t Held(int descriptor, Connection* connection, bool spoke);
  void EndForMemory(int descriptor, Connection* connection);
  void Report(const Connection& connection, Refusal reason);

  PullSocket* const socket_;
  CollectStats* const stats_;
  const bool quiet_;
  const std::uint64_t max_memory_;
  const std::uint64_t highest_;  // descriptor that a connection may have
  std::mutex mutex_;
  std::set<int> spoke_;  // guarded by mutex_: descriptors of messages that were taken
  ZmqSocket events_;
  // Used by thread_ alone.
  Connections connections_;
  std::uint64_t accepted_ = 0;
  std::uint64_t connected_ = 0;
  std::uint64_t refused_ = 0;
  std::uint32_t failure_ = 0;  // of the connection that ends next: a code of libzmq's, or errno
  bool denied_ = false;        // by the gate, which counts it
  unsigned looks_ = 0;
  bool memory_full_ = false;
  std::uint64_t ended_ = 0;  // because of the memory
  std::thread thread_;
};

}  // namespace zmqwriter
