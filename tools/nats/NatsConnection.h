// A connection to a JetStream engine: any of its servers, and another one when that fails.
#pragma once

#include <nats/nats.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "NatsOptions.h"

namespace zmqwriter {

/// The library's threads end with it. Made before every other object of the library, one at a time.
class NatsLibrary {
 public:
  NatsLibrary();
  ~NatsLibrary();
  NatsLibrary(const NatsLibrary&) = delete;
  NatsLibrary& operator=(const NatsLibrary&) = delete;
};

/// The last words of the library about `status`, on this thread.
std::string nats_problem(natsStatus status);

/// Frees what the library hands out.
template <typename T, void (*Destroy)(T*)>
struct NatsDeleter {
  void operator()(T* object) const { Destroy(object); }
};
template <typename T, void (*Destroy)(T*)>
using NatsPtr = std::unique_ptr<T, NatsDeleter<T, Destroy>>;

class ConnectError : public std::runtime_error {
 public:
  ConnectError(natsStatus why, const std::string& words, bool passes = false)
      : std::runtime_error(words), status(why), may_pass(passes) {}
  const natsStatus status;
  const bool may_pass;  // as a server that is away does, unlike one that refuses
};

class NatsConnection {
 public:
  /// How long a server has to answer. Longer silence ends the connection to it.
  static constexpr int kAnswerMs = 2000;

  /// `handler`, if any, gets the answers to js_PublishMsgAsync, on a thread of the library. Throws
  /// ConnectError that says what to look at. With `patient`, it connects later where no server can
  /// be reached.
  explicit NatsConnection(const NatsOptions& options, jsPubAckHandler handler = nullptr,
                          void* closure = nullptr, bool patient = false);
  ~NatsConnection();
  NatsConnection(const NatsConnection&) = delete;
  NatsConnection& operator=(const NatsConnection&) = delete;

  natsConnection* get() const { return connection_.get(); }
  jsCtx* stream() const { return stream_.get(); }

  bool connected() const;
  /// It will not connect again by itself, e.g. because it was refused.
  bool closed() const { return natsConnection_IsClosed(get()); }
  std::uint64_t reconnections() const { return reconnections_; }
  /// Why it was refused or broke, or which right is missing; empty if nothing is known.
  std::string last_problem() const;
  /// Whether that is a missing right.
  bool refused() const;
  void ForgetProblem();
  /// The known servers of the cluster; true for the one that this is connected to.
  std::vector<std::pair<std::string, bool>> servers() const;

 private:
  static void OnError(natsConnection*, natsSubscription*, natsStatus, void* self);
  static void OnDisconnected(natsConnection*, void* self);
  static void OnReconnected(natsConnection*, void* self);
  static void OnClosed(natsConnection*, void* self);
  void NoteProblem(natsStatus status, const char* text);

  std::atomic<std::uint64_t> reconnections_{0};
  mutable std::mutex mutex_;
  std::string problem_;  // guarded by mutex_
  bool refused_ = false;
  bool over_ = false;  // no handler is called any more
  std::condition_variable changed_;
  NatsPtr<natsConnection, natsConnection_Destroy> connection_;
  NatsPtr<jsCtx, jsCtx_Destroy> stream_;
};

/// Connects to each server by itself, until one answers. Returns why none does; empty if one does.
/// Throws ConnectError for what does not pass: of several servers, libnats may tell another's.
std::string why_no_server_answers(const NatsOptions& options);

}  // namespace zmqwriter
