// A plain model of the worker's send loop, to run next to the real one: one step after the other in
// the required order, with a queue of entries and no memory of its own to manage.
//
//     LoopScript script(seed);          // all that the world does in one run
//     SendLoopModel model(script);
//     model.run();                      // model.lines is what the real loop has to do
//
// The script decides outcomes by the number of events so far, so that the model and the real loop
// are told the same as long as they do the same. Events are the lines of the log but those of the
// spool.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace test {

/// A random but repeatable world: servers that come and go, calls that fail, messages that arrive.
class LoopScript {
 public:
  explicit LoopScript(std::uint64_t seed);

  // The start.
  std::vector<std::string> secondaries;  // as configured, with duplicates
  int waiting = 0;                       // messages "q0", "q1", ... in memory
  int spooled = 0;                       // messages "d0", "d1", ... in the spool
  int empty_promises = 0;                // Gets of the spool that give nothing

  // What happens, by the number of events so far.
  bool send_works(const std::string& endpoint, int event) const;
  bool connect_works(const std::string& endpoint, int event) const;
  bool socket_works(int event) const;
  bool init_works(int event) const;
  bool init_data_works(int event) const;
  // What happens to the nth record, from 0 on, that the flush takes up.
  bool flush_init_works(int nth) const;
  bool flush_init_data_works(int nth) const;
  /// How many messages arrive right after this event.
  int arrivals(int event) const;
  /// The event right after which `running` is cleared.
  int stop_at = 0;

  static constexpr std::int64_t kFailedSendUs = 3000000;  // how long a failing send takes

 private:
  double chance(const std::string& what, int event) const;

  std::uint64_t seed_;
  double server_up_;
  double arrival_;
  int period_;
  bool flaky_;
};

class SendLoopModel {
 public:
  explicit SendLoopModel(const LoopScript& script);

  /// The loop from start to end.
  void run();
  /// After that, Stop's flush of what is left. Nothing arrives any more.
  void flush();

  // What came out.
  std::vector<std::string> lines;
  std::vector<std::string> spool;
  int sent = 0;
  int failed = 0;
  int dropped = 0;  // by the flush
  std::int64_t main_fail_time = 0;
  int secondary_index = 0;
  std::string secondary_server;
  std::size_t queued() const { return queue_.size(); }

 private:
  struct Record {
    std::string body;
    bool delivered = false;
  };
  enum State { kPrimary, kNoSecondary, kSecondary };
  static constexpr int kNone = -1;
  /// Sockets are numbered like their names; 0 is null.
  using Socket = int;

  void event(const std::string& line);
  void sleep(std::int64_t us);
  bool send(Socket socket, const std::string& endpoint);
  bool attempt(Socket socket, const std::string& endpoint);
  Socket connect(const std::string& endpoint);
  void disconnect_and_close(Socket socket);
  void drop_secondary();
  void write(const std::string& body);
  void refill();
  int pop();
  void pass();
  std::int64_t seconds() const { return now_us_ / 1000000; }

  const LoopScript& script_;
  std::vector<Record> records_;
  std::deque<int> queue_;  // indices into records_
  int promises_ = 0;
  int events_ = 0;
  int arrived_ = 0;
  bool running_ = true;
  bool flushing_ = false;
  std::int64_t now_us_;
  State state_ = kPrimary;
  Socket secondary_socket_ = 0;
  Socket last_socket_ = 1;
  std::deque<Socket> dropped_;
  int current_ = kNone;
  std::string message_;  // what the message object holds
};

}  // namespace test
