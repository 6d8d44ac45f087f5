// One log for everything that the fakes are asked to do, so that a test can assert the exact order
// of sends, connects, sleeps, warnings and spool operations.
//
//     test::CallLog::instance().clear();
//     worker.DoWork();
//     EXPECT_THAT(test::CallLog::instance().story(), ElementsAre("send s1 'a' ok", "sleep
//     100000"));
//
// A line whose first word starts with a dot is a detail (".msg_close"): all() has it, story() not.
// Thread-safe. The listener runs on the logging thread with no lock held, after the line is in.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace test {

class CallLog {
 public:
  static CallLog& instance();

  void add(const std::string& line);
  void clear();

  std::vector<std::string> all() const;
  /// Without the details.
  std::vector<std::string> story() const;
  /// The lines that begin with `start`.
  std::vector<std::string> starting_with(const std::string& start) const;

  /// Called with each line; null for none.
  void listen(std::function<void(const std::string&)> listener);

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::shared_ptr<std::function<void(const std::string&)>> listener_;
};

}  // namespace test
