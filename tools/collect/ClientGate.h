// Decides which clients may connect: only those whose public key is on a list.
//
// libzmq asks about each client that has proved that it owns its key, by the ZeroMQ Authentication
// Protocol (ZAP 1.0) over an inproc endpoint of the context; a thread of this class answers. The
// gate must exist before the first socket of the context is bound. libzmq asks once for each
// connection, so a new list does not end existing ones. Without an answer no client may connect.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CurveKey.h"
#include "Zmq.h"

namespace zmqwriter {

/// The public keys of the clients that may connect.
using AllowList = std::set<CurveKey>;

/// Reads a file with a key in each line: 64 hexadecimal digits of either case, as 'zmqwriter
/// keygen' writes them. Blank lines are skipped; '#' starts a comment, also after a key. Throws
/// std::runtime_error that names the file, and the line if that is not a key: "FILE:LINE: ...". A
/// file without any key is an error, because no client could connect.
AllowList read_allow_list(const std::string& path);

class ClientGate {
 public:
  /// Where libzmq asks. While a socket is bound here that does not answer, no client gets through.
  static constexpr const char* kEndpoint = "inproc://zeromq.zap.01";

  /// Throws std::runtime_error when the endpoint cannot be opened. With `quiet`, denied clients are
  /// only counted; else the first few are reported on standard error.
  ClientGate(ZmqContext* context, AllowList allowed, bool quiet);
  /// Ends the context; its other sockets must be closed already.
  ~ClientGate();
  ClientGate(const ClientGate&) = delete;
  ClientGate& operator=(const ClientGate&) = delete;

  /// Takes a new list. Any thread.
  void Replace(AllowList allowed);

  /// From now on clients get no answer: they can neither send nor are they turned away. Any thread.
  void Hold() { held_ = true; }

  /// Any thread.
  std::uint64_t accepted() const { return accepted_.load(); }
  std::uint64_t denied() const { return denied_.load(); }

 private:
  void Serve();
  bool ReceiveRequest(std::vector<std::string>* frames);
  void Answer(const std::vector<std::string>& request);
  bool IsAllowed(const std::string& public_key);
  void ReportDenied(const std::string& public_key, const std::string& address);

  ZmqContext* const context_;
  const bool quiet_;
  ZmqSocket socket_;  // the constructor's until the thread starts, then the thread's
  std::mutex mutex_;
  AllowList allowed_;  // guarded by mutex_
  std::atomic<bool> held_{false};
  std::atomic<std::uint64_t> accepted_{0};
  std::atomic<std::uint64_t> denied_{0};
  std::thread thread_;
};

}  // namespace zmqwriter
