// The stream of a JetStream engine that takes a collector's events.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "JetStreamOptions.h"
#include "NatsConnection.h"
#include "TroubleReport.h"

namespace zmqwriter {

/// Of what js_ functions return; `words` may be empty.
StreamProblem stream_problem(natsStatus status, int error_code, const std::string& words);

struct FoundStream {
  std::string name;       // empty: none takes the subjects
  std::string others;     // that take some of them, e.g. "a, b"
  bool takes_all = true;  // of the subjects PREFIX.>
  StreamLimits limits;
  std::string retention;  // "limits", "interest", "workqueue"
  bool discards_old = false;
  bool in_memory = false;
  std::int32_t max_message = -1;  // bytes; -1: no limit
  std::int64_t duplicates_s = 0;  // how long it recognises the id of an event
  // ns since 1970
  std::int64_t created = 0;
  std::int64_t first_time = 0;
  std::int64_t last_time = 0;
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;
  std::uint64_t last_sequence = 0;
  bool led = true;
  std::string leader;  // empty: none, or a single server
  int replicas_behind = 0;
};

/// The stream that takes such subjects, or some of them. Throws StreamError when the engine does
/// not tell, also when each of two answers takes longer than `wait_ms`.
FoundStream find_stream(const NatsConnection& engine, const std::string& subjects,
                        int wait_ms = NatsConnection::kAnswerMs);

/// How an existing stream differs from what was asked for, to the worse: a sentence each.
std::vector<std::string> stream_differences(const FoundStream& stream, const StreamLimits& limits);

/// What it means that `stream` does not take all of PREFIX.>.
std::string partly_taken(const FoundStream& stream, const std::string& prefix);

/// Looks for the stream of the subjects PREFIX.>, or makes it with the limits `create`: named as
/// the prefix with '-' for dots, on disk, and refusing events when it is full. Says on standard
/// error what was made, and what is not as it should be. Returns why there is none.
std::optional<StreamProblem> stream_missing(NatsConnection* engine, const std::string& prefix,
                                            const std::optional<StreamLimits>& create,
                                            int wait_ms = NatsConnection::kAnswerMs);

/// Why events are not acknowledged, or nobody receives them, which can have several reasons:
/// `problem` if the engine does not say, nothing if there is none to see.
std::optional<StreamProblem> reason_of(const StreamProblem& problem, NatsConnection* engine,
                                       const std::string& prefix, int wait_ms);

class StreamError : public std::runtime_error {
 public:
  explicit StreamError(const StreamProblem& problem)
      : std::runtime_error(problem.words), trouble(problem.trouble) {}
  const StreamTrouble trouble;
};

/// Throws StreamError with what the engine said; a missing right counts more than `status`.
[[noreturn]] void throw_stream_error(const NatsConnection& engine, natsStatus status,
                                     int error_code);

}  // namespace zmqwriter
