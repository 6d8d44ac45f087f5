// The stand-in for the host process: what a program (zmqwriter replay, a test) uses to start it,
// load a plug-in folder as the host would, create writers and end them in the host's order.
//
// Everything here belongs to the main thread: the thread that constructs the Host. One Host may
// exist at a time. Problems that the host would die of (a missing magic file, a wrong API
// version, an unknown writer) are thrown as HostError whose text says what to do about it.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace logging {
class WriterFrontend;
}
namespace threading {
struct Field;
}

namespace standin {

class HostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Host {
 public:
  struct Options {
    /// Settings file for the global `settings`; empty for none (every lookup gives its default).
    std::string settings_file;
    /// Command-line words of the form LogZMQ::NAME=VALUE, applied after the plug-in's scripts.
    std::vector<std::string> redefs;
    /// Wall-clock seconds between heartbeats; 0 switches them off.
    double heartbeat_seconds = 1.0;
  };

  /// Creates the host's global objects (reporter, thread_mgr, plugin_mgr, log_mgr, ...).
  explicit Host(const Options& options);
  /// Calls Finish.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// Loads the plug-in folder: magic file, scripts (constants and record types come from
  /// `scripts/__preload__.bro` and `scripts/__load__.bro`), dlopen, registration, Configure, API
  /// version, name check, InitPreScript, redefs, bif initialisers, InitPostScript.
  void LoadPlugin(const std::string& folder);

  /// What the host prints for -N (details = false) or -NN (details = true).
  std::string DescribePlugins(bool details) const;

  /// dlsym in the loaded plug-in; null when it has no such symbol.
  void* PluginSymbol(const char* name) const;

  /// One writer of component `writer` ("ZMQ") in its own thread, initialised with copies of
  /// `fields`. The host owns it until Finish. Feed it with WriterFrontend::Write.
  logging::WriterFrontend* CreateWriter(const std::string& writer, const std::string& path,
                                        const std::vector<threading::Field>& fields);

  /// Handles what the writer threads posted and sends the heartbeat when it is due. To be called
  /// often (every few milliseconds while waiting). Returns whether there was anything to do.
  bool Pump();

  /// Batches that writer threads have not taken yet, all writers together.
  std::size_t PendingInput() const;

  /// Ends as the host does: flush and finish every writer, wait for the threads while handling
  /// their messages, join, destroy the backends, Done() of the plug-ins. Idempotent.
  void Finish();

 private:
  void ApplyRedefs();

  struct Impl;
  Impl* impl_;
};

/// The host's pseudo-realtime mode, in which a trace is replayed as if it happened now: from now on
/// current_time(false) gives `seconds` (since 1970), while current_time(true) stays the wall clock;
/// 0 ends it. Any thread, with or without a Host.
void set_pseudo_time(double seconds);

}  // namespace standin
