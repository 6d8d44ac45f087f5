// The plug-in as a benchmark feeds it: writers whose DoWrite is called by the benchmark's own
// threads, and the one worker that they share, with the spool in a fresh folder that is the working
// directory meanwhile.
//
// To be compiled with access to protected members. One at a time; made and destroyed on the main
// thread, each writer used by one thread. Destroying it stops the worker, which takes long while
// no server answers.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "WriterStatus.h"

#include "standin/ReportRecorder.h"

#include "ScriptConstants.h"
#include "System.h"
#include "TempDir.h"
#include "WriterUnderTest.h"

namespace bench {

/// A fresh working directory with what the plug-in expects to be there, removed afterwards, and
/// what it reports meanwhile.
class AgentSurroundings {
 public:
  AgentSurroundings() {
    std::filesystem::create_directory("orvik");
    std::filesystem::create_directory("orvik-spool");
  }

  /// An error of the plug-in ends the program.
  void check() const {
    for (const std::string& error : reports_.Texts(standin::ReportKind::kError))
      give_up("the plug-in: " + error);
  }

 private:
  const test::TempDir folder_;
  const standin::ReportRecorder reports_;
};

class Agent {
 public:
  Agent(const std::string& endpoint, const std::string& public_key, int writers) {
    test::ScriptConstants::set(BifConst::LogZMQ::zmq_primary_server, endpoint);
    test::ScriptConstants::set(BifConst::LogZMQ::zmq_public_key, public_key);
    test::ScriptConstants::set(BifConst::LogZMQ::zmq_secondary_server, "");
    for (int i = 0; i < writers; ++i) {
      writers_.push_back(std::make_unique<test::WriterUnderTest>());
      writers_.back()->init();
    }
    surroundings_.check();
  }

  void write(int writer, test::RecordBuilder& record) {
    if (!writers_[static_cast<std::size_t>(writer)]->write(record))
      give_up("the plug-in refused a record");
  }

  int writers() const { return static_cast<int>(writers_.size()); }

  DravenholtZmqWriterStatus status() const {
    DravenholtZmqWriterStatus now = {};
    dravenholt_zmqwriter_status(&now);
    return now;
  }

  /// Keeps the queue from filling, so that the spool is left alone: to be called by each writer's
  /// thread before its record of that number. All of them together look as often as one would.
  void wait_for_room(std::uint64_t number) const {
    const std::uint64_t interval = std::max<std::uint64_t>(1, kLookInterval / writers_.size());
    if (number % interval == 0)
      while (status().queued > kMostQueued)
        std::this_thread::sleep_for(std::chrono::microseconds(500));
  }

  /// Whether a record has ever gone to the spool, since the folder was made.
  bool spool_was_used() const { return !std::filesystem::is_empty(status().spool_folder); }

 private:
  // With 500 the plug-in begins to spool; between two looks, 64 records may come.
  static constexpr std::uint64_t kMostQueued = 400;
  static constexpr std::uint64_t kLookInterval = 64;

  const AgentSurroundings surroundings_;
  const test::ScriptConstants constants_;
  std::vector<std::unique_ptr<test::WriterUnderTest>> writers_;
};

}  // namespace bench
