// Reports from any thread to the host's reporter.
//
// The host's global `reporter` may only be used on the host's main thread, while most of this
// plug-in's reports arise on writer threads and on the send thread. This unit is the one place
// that knows how a report gets there:
//
//   - on the main thread (the one that loaded the plug-in) `reporter` is called at once;
//   - elsewhere the report goes to the end of a small locked list, which the main thread empties
//     into `reporter`, oldest first. On a writer thread (inside a WriterScope) the writer posts a
//     threading::OutputMessage right away whose Process() does that. A report of any other thread
//     (the send thread) waits for the next DoWrite or DoHeartbeat of any writer, which opens such
//     a scope. The worker's Stop and the writer's destructor empty the list too: so it does not
//     matter that the host drops what a thread posts once it is being ended;
//   - where no writer is alive to carry it (a worker used by itself) the call is made at once.
//
// Since one list holds them all, reports of one thread never overtake each other. All functions
// are thread-safe unless they say otherwise; none throws. Without a `reporter` (the host clears it
// at its very end) reports are dropped.
#pragma once

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
/// report), destroy in its destructor. The last one takes along what still waits in the list.
class WriterAlive {
 public:
  WriterAlive();
  ~WriterAlive();
  WriterAlive(const WriterAlive&) = delete;
  WriterAlive& operator=(const WriterAlive&) = delete;
};

/// While it exists, `writer` carries the reports made on this thread, which must be the writer's
/// own. Sends for what waits in the list first. Cheap when nothing waits: one relaxed atomic read,
/// no lock. Scopes may be nested.
class WriterScope {
 public:
  explicit WriterScope(threading::MsgThread* writer);
  ~WriterScope();
  WriterScope(const WriterScope&) = delete;
  WriterScope& operator=(const WriterScope&) = delete;

 private:
  threading::MsgThread* previous_;
};

/// Hands every waiting report to `reporter`, oldest first. On any other thread than the main thread
/// it leaves them where they are.
void deliver_pending();

}  // namespace reports
