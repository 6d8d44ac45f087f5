// Reports from any thread to the host's reporter.
//
// The host's global `reporter` may only be used on the host's main thread, while most of this
// plug-in's reports arise on writer threads and on the send thread. This unit is the one place
// that knows how a report gets there:
//
//   - on the main thread (the one that loaded the plug-in) `reporter` is called at once;
//   - on a writer thread (inside a WriterScope) the writer posts a threading::OutputMessage whose
//     Process() makes the call on the main thread;
//   - on any other thread (the send thread) the report waits in a small locked list, which the
//     next DoWrite or DoHeartbeat of any writer posts (forward_pending) and which the worker's
//     Stop and the writer's destructor, on the main thread, empty (deliver_pending);
//   - where no writer is alive to carry it (a worker used by itself) the call is made at once.
//
// The order of the reports of one thread is kept. All functions are thread-safe unless they say
// otherwise; none throws.
#pragma once

#include <string>

namespace threading {
class MsgThread;
}

namespace reports {

/// Calls Reporter::Weird(text), the variant without a connection. `text` must not contain '%':
/// the host uses it as a format.
void weird(const char* text);

/// printf-style; the text is formatted before the call returns.
void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
void warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void error(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Counts a writer instance as alive: construct in the writer's constructor (before its first
/// report), destroy in its destructor.
class WriterAlive {
 public:
  WriterAlive();
  ~WriterAlive();
  WriterAlive(const WriterAlive&) = delete;
  WriterAlive& operator=(const WriterAlive&) = delete;
};

/// While it exists, reports made on this thread are posted through `writer`. Posts what waits in
/// the list first. Cheap when nothing waits: one relaxed atomic read, no lock.
class WriterScope {
 public:
  explicit WriterScope(threading::MsgThread* writer);
  ~WriterScope();
  WriterScope(const WriterScope&) = delete;
  WriterScope& operator=(const WriterScope&) = delete;

 private:
  threading::MsgThread* previous_;
};

/// Hands every waiting report to `reporter`, oldest first. Main thread only.
void deliver_pending();

}  // namespace reports
