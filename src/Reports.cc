#include "Reports.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "OutOfMemory.h"

#include "Reporter.h"
#include "threading/MsgThread.h"
#include "util.h"

namespace reports {
namespace {

enum Kind { kWeird, kInfo, kWarning, kError };

struct Report {
  Kind kind;
  std::string text;
};

/// Reports on their way to the main thread. One object per process, made while the plug-in is
/// loaded and never destroyed: a thread may report for as long as the process lives.
struct Pending {
  std::mutex mutex;
  std::deque<Report> list;  // guarded by mutex
  int writers_alive = 0;    // guarded by mutex
  /// Something was added that no writer has sent for yet. Changed under the mutex.
  std::atomic<bool> unannounced{false};
};

/// The thread that loads the plug-in is the host's main thread.
const std::thread::id main_thread = std::this_thread::get_id();
Pending& pending = *new Pending;
thread_local threading::MsgThread* current_writer = nullptr;

bool on_main_thread() {
  return std::this_thread::get_id() == main_thread;
}

void call_reporter(const Report& report) {
  if (!reporter)
    return;
  switch (report.kind) {
    case kWeird:
      reporter->Weird(report.text.c_str());
      break;
    case kInfo:
      reporter->Info("%s", report.text.c_str());
      break;
    case kWarning:
      reporter->Warning("%s", report.text.c_str());
      break;
    case kError:
      reporter->Error("%s", report.text.c_str());
      break;
  }
}

/// Takes over what waits. `lock` must hold pending.mutex.
std::deque<Report> take_all(const std::unique_lock<std::mutex>&) {
  std::deque<Report> taken;
  taken.swap(pending.list);
  pending.unannounced.store(false, std::memory_order_relaxed);
  return taken;
}

void call_reporter(const std::deque<Report>& taken) {
  for (const Report& report : taken)
    call_reporter(report);
}

/// Sends the main thread to the list. The message carries nothing itself: whichever arrives first
/// delivers everything up to then, in order, and one that the host drops loses no report.
class EmptyTheList : public threading::OutputMessage<threading::MsgThread> {
 public:
  explicit EmptyTheList(threading::MsgThread* writer) : OutputMessage("ZMQWriterReports", writer) {}

  bool Process() override {
    deliver_pending();
    return true;
  }
};

/// Has `writer` post the message if there is something to send for. A writer that is being ended
/// is passed over: the host would drop its message, and another writer or the destructor will do.
void announce(threading::MsgThread* writer) {
  if (writer->Terminating())
    return;
  if (pending.unannounced.exchange(false, std::memory_order_relaxed))
    writer->SendOut(new EmptyTheList(writer));
}

/// For the main thread later, or at once when no writer is there to send for it.
void add(const Report& report) {
  std::unique_lock<std::mutex> lock(pending.mutex);
  pending.list.push_back(report);
  if (pending.writers_alive == 0) {
    // Under the lock, so that another thread's report cannot come between.
    call_reporter(take_all(lock));
    return;
  }
  pending.unannounced.store(true, std::memory_order_relaxed);
  lock.unlock();
  if (current_writer)
    announce(current_writer);
}

void report(Kind kind, const char* text) {
  abort_on_bad_alloc([=] {
    const Report report = {kind, text};
    if (on_main_thread())
      call_reporter(report);
    else
      add(report);
  });
}

void report_formatted(Kind kind, const char* format, va_list arguments) {
  char* text = nullptr;
  if (vasprintf(&text, format, arguments) < 0) {
    out_of_memory("malloc");
    return;
  }
  report(kind, text);
  free(text);
}

}  // namespace

void weird(const char* text) {
  report(kWeird, text);
}

void info(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  report_formatted(kInfo, format, arguments);
  va_end(arguments);
}

void warning(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  report_formatted(kWarning, format, arguments);
  va_end(arguments);
}

void error(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  report_formatted(kError, format, arguments);
  va_end(arguments);
}

WriterAlive::WriterAlive() {
  std::lock_guard<std::mutex> lock(pending.mutex);
  pending.writers_alive++;
}

WriterAlive::~WriterAlive() {
  abort_on_bad_alloc([] {
    std::unique_lock<std::mutex> lock(pending.mutex);
    if (--pending.writers_alive == 0)
      call_reporter(take_all(lock));
  });
}

WriterScope::WriterScope(threading::MsgThread* writer) : previous_(current_writer) {
  current_writer = writer;
  if (!pending.unannounced.load(std::memory_order_relaxed))
    return;
  if (on_main_thread())
    deliver_pending();
  else
    announce(writer);
}

WriterScope::~WriterScope() {
  current_writer = previous_;
}

void deliver_pending() {
  if (!on_main_thread())
    return;
  abort_on_bad_alloc([] {
    std::unique_lock<std::mutex> lock(pending.mutex);
    const std::deque<Report> taken = take_all(lock);
    lock.unlock();
    call_reporter(taken);
  });
}

}  // namespace reports
