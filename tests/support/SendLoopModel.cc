#include "SendLoopModel.h"

namespace test {

namespace {

constexpr std::size_t kBound = 500;
constexpr std::size_t kMostDropped = 8;
const char kPrimaryEndpoint[] = "tcp://p:5555";

/// A good spread of the bits (splitmix64).
std::uint64_t mixed(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
  x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
  return x ^ (x >> 31);
}

std::uint64_t hash_of(const std::string& text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const unsigned char c : text)
    hash = (hash ^ c) * 0x100000001b3;
  return hash;
}

}  // namespace

// -- Script ---------------------------------------------------------------------------------------

LoopScript::LoopScript(std::uint64_t seed) : seed_(seed) {
  const auto below = [this](const std::string& what, int bound) {
    return static_cast<int>(chance(what, 0) * bound);
  };
  const char* const names[] = {"tcp://a:5555", "tcp://b:5555", "tcp://c:5555"};
  const int count = below("secondaries", 4);
  for (int i = 0; i < count; ++i)
    secondaries.push_back(names[below("secondary" + std::to_string(i), 3)]);
  const double size = chance("size", 0);
  // Most worlds are small; some are around the bound of the queue.
  waiting = size < 0.85 ? below("waiting", 12) : 494 + below("waiting", 12);
  spooled = below("with spool", 2) * below("spooled", 12);
  empty_promises = below("with promises", 5) == 0 ? below("promises", 4) : 0;
  stop_at = 1 + below("stop", size < 0.85 ? 250 : 700);
  server_up_ = 0.2 + 0.7 * chance("up", 0);
  arrival_ = 0.3 * chance("arrivals", 0);
  period_ = 1 + below("period", 25);
  flaky_ = below("flaky", 3) == 0;
}

double LoopScript::chance(const std::string& what, int event) const {
  const std::uint64_t bits =
      mixed(seed_ ^ mixed(hash_of(what) ^ mixed(static_cast<std::uint64_t>(event))));
  return static_cast<double>(bits >> 11) / 9007199254740992.0;
}

/// Outages last: an outcome holds for some events.
bool LoopScript::send_works(const std::string& endpoint, int event) const {
  if (flaky_ && chance("flaky " + endpoint, event) < 0.2)
    return chance("outcome " + endpoint, event) < 0.5;
  return chance("up " + endpoint, event / period_) < server_up_;
}

bool LoopScript::connect_works(const std::string& endpoint, int event) const {
  return chance("connect " + endpoint, event) < 0.9;
}

bool LoopScript::socket_works(int event) const {
  return chance("socket", event) < 0.95;
}

bool LoopScript::init_works(int event) const {
  return !flaky_ || chance("init", event) < 0.95;
}

bool LoopScript::init_data_works(int event) const {
  return !flaky_ || chance("init data", event) < 0.95;
}

bool LoopScript::flush_init_works(int nth) const {
  return !flaky_ || chance("flush init", nth) < 0.9;
}

bool LoopScript::flush_init_data_works(int nth) const {
  return !flaky_ || chance("flush init data", nth) < 0.9;
}

int LoopScript::arrivals(int event) const {
  if (chance("arrival", event) >= arrival_)
    return 0;
  return 1 + static_cast<int>(chance("arriving", event) * 5);
}

// -- Model ----------------------------------------------------------------------------------------

SendLoopModel::SendLoopModel(const LoopScript& script)
    : script_(script), promises_(script.empty_promises), now_us_(1400000000000000) {
  for (int i = 0; i < script.spooled; ++i)
    spool.push_back("d" + std::to_string(i));
  for (int i = 0; i < script.waiting; ++i)
    write("q" + std::to_string(i));
}

void SendLoopModel::event(const std::string& line) {
  lines.push_back(line);
  events_ += 1;
  if (flushing_)
    return;
  for (int i = script_.arrivals(events_); i > 0; --i)
    write("n" + std::to_string(arrived_++));
  if (events_ == script_.stop_at)
    running_ = false;
}

void SendLoopModel::sleep(std::int64_t us) {
  now_us_ += us;
  event("sleep " + std::to_string(us) + " us");
}

bool SendLoopModel::attempt(Socket socket, const std::string& endpoint) {
  const bool works = socket != 0 && script_.send_works(endpoint, events_);
  if (socket != 0 && !works)
    now_us_ += LoopScript::kFailedSendUs;
  const std::string name = socket == 0 ? "null" : "s" + std::to_string(socket);
  const std::string body = message_;
  if (works)
    message_.clear();
  event("send " + name + " '" + body + "'" + (works ? " ok" : " failed"));
  return works;
}

/// The blocking send.
bool SendLoopModel::send(Socket socket, const std::string& endpoint) {
  bool works = attempt(socket, endpoint);
  if (!works && running_) {
    sleep(1000000);
    works = attempt(socket, endpoint);
  }
  (works ? sent : failed) += 1;
  return works;
}

SendLoopModel::Socket SendLoopModel::connect(const std::string& endpoint) {
  if (!script_.socket_works(events_)) {
    event("socket failed");
    event("error: Failed to open ZMQ socket");
    return 0;
  }
  const Socket socket = ++last_socket_;
  const std::string name = "s" + std::to_string(socket);
  event("socket " + name);
  const bool works = script_.connect_works(endpoint, events_);
  event("connect " + name + " " + endpoint + (works ? " ok" : " failed"));
  if (works)
    return socket;
  event("error: Failed to connect to ZMQ server " + endpoint);
  event("close " + name);
  return 0;
}

void SendLoopModel::disconnect_and_close(Socket socket) {
  const std::string name = socket == 0 ? "null" : "s" + std::to_string(socket);
  event("disconnect " + name + " " + secondary_server);
  event("close " + name);
}

/// Let go without closing; only the oldest of many is closed.
void SendLoopModel::drop_secondary() {
  if (secondary_socket_ == 0)
    return;
  dropped_.push_back(secondary_socket_);
  secondary_socket_ = 0;
  if (dropped_.size() > kMostDropped) {
    event("close s" + std::to_string(dropped_.front()));
    dropped_.pop_front();
  }
}

void SendLoopModel::write(const std::string& body) {
  if (queue_.size() < kBound) {
    queue_.push_back(static_cast<int>(records_.size()));
    records_.push_back({body});
  } else {
    spool.push_back(body);
    lines.push_back("spool store '" + body + "'");
  }
}

void SendLoopModel::refill() {
  while (queue_.size() < kBound && (promises_ > 0 || !spool.empty())) {
    std::string body;
    if (promises_ > 0) {
      promises_ -= 1;
      lines.push_back("spool get nothing");
    } else {
      body = spool.back();
      spool.pop_back();
      lines.push_back("spool get '" + body + "'");
    }
    queue_.push_back(static_cast<int>(records_.size()));
    records_.push_back({body});
  }
}

/// The next entry of a record that is not delivered yet. When all that waited were stale entries,
/// the room they leave is filled from the spool.
int SendLoopModel::pop() {
  bool skipped = true;
  while (skipped) {
    skipped = false;
    while (!queue_.empty()) {
      const int entry = queue_.front();
      queue_.pop_front();
      if (!records_[static_cast<std::size_t>(entry)].delivered)
        return entry;
      skipped = true;
    }
    if (skipped)
      refill();
  }
  return kNone;
}

/// The inner loop, step by step.
void SendLoopModel::pass() {
  bool switched = false;
  for (int step = 1;;) {
    switch (step) {
      case 1:
        if (!running_)
          return;
        step = 2;
        break;
      case 2:
        if (current_ == kNone)
          current_ = pop();
        if (current_ == kNone)
          return;
        step = 3;
        break;
      case 3:
        if (!script_.init_works(events_) || !script_.init_data_works(events_)) {
          event("warning: Failed to initialize zmq_message");
          return;
        }
        step = 4;
        break;
      case 4:
        message_ = records_[static_cast<std::size_t>(current_)].body;
        step = 5;
        break;
      case 5:
        if (send(1, kPrimaryEndpoint)) {
          step = 6;
        } else {
          if (!running_)
            return;
          step = 7;
        }
        break;
      case 6:
        main_fail_time = 0;
        if (state_ != kPrimary)
          event(std::string("warning: Main zmq server ") + kPrimaryEndpoint + " is back online");
        state_ = kPrimary;
        step = 10;
        break;
      case 7:
        switched = false;
        if (state_ == kSecondary) {
          step = 8;
        } else if (state_ == kPrimary && main_fail_time == 0) {
          event(std::string("warning: Main zmq server ") + kPrimaryEndpoint +
                " is not responding, 5 minutes timeout...");
          main_fail_time = seconds();
          step = 11;
        } else {
          step = 9;
        }
        break;
      case 8:
        if (send(secondary_socket_, secondary_server)) {
          state_ = kSecondary;
          step = 10;
        } else {
          event("warning: Secondary server " + secondary_server + " is not responding");
          disconnect_and_close(secondary_socket_);
          secondary_socket_ = 0;
          state_ = kNoSecondary;
          step = switched ? 10 : 11;
        }
        break;
      case 9:
        for (secondary_index = 0;
             secondary_index < static_cast<int>(script_.secondaries.size()) && !switched;
             secondary_index += switched ? 0 : 1) {
          secondary_server = script_.secondaries[static_cast<std::size_t>(secondary_index)];
          const Socket candidate = connect(secondary_server);
          if (send(candidate, secondary_server)) {
            event("warning: Switched to secondary server " + secondary_server);
            drop_secondary();
            secondary_socket_ = candidate;
            switched = true;
          } else {
            disconnect_and_close(candidate);
          }
        }
        if (switched) {
          step = 8;
        } else {
          if (!script_.secondaries.empty())
            drop_secondary();
          event("warning: Could not connect to any of secondary servers!");
          state_ = kNoSecondary;
          step = 11;
        }
        break;
      case 10:
        records_[static_cast<std::size_t>(current_)].delivered = true;
        current_ = kNone;
        refill();
        step = 12;
        break;
      case 11:
        queue_.push_back(current_);
        step = 12;
        break;
      default:
        step = 1;
        if (queue_.empty())
          return;
        break;
    }
  }
}

void SendLoopModel::run() {
  while (running_) {
    if (state_ == kPrimary && main_fail_time > 0 && seconds() - main_fail_time <= 9) {
      sleep(1000000);
      continue;
    }
    current_ = kNone;
    if (!queue_.empty())
      pass();
    sleep(100000);
  }
  if (secondary_socket_ != 0)
    disconnect_and_close(secondary_socket_);
}

void SendLoopModel::flush() {
  flushing_ = true;
  int attempts = 0;
  for (; !queue_.empty(); queue_.pop_front()) {
    Record& record = records_[static_cast<std::size_t>(queue_.front())];
    if (record.delivered)
      continue;
    record.delivered = true;
    const int nth = attempts++;
    message_ = record.body;
    const bool works = script_.flush_init_works(nth) && script_.flush_init_data_works(nth) &&
                       send(1, kPrimaryEndpoint);
    dropped += works ? 0 : 1;
  }
}

}  // namespace test
