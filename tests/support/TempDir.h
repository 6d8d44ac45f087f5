// Small helpers that every test may use.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace test {

/// A fresh folder that is the working directory while the object lives and is removed afterwards.
/// The units of src/ are compiled for tests with relative fixed paths, so they stay inside it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  /// path() + "/" + name.
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
  std::string previous_;
};

/// Whole content of a file; empty when it cannot be read.
std::string read_file(const std::string& path);
/// Creates or replaces a file.
void write_file(const std::string& path, const std::string& content);

/// Polls `condition` until it holds or the deadline has passed; returns whether it held.
bool wait_until(const std::function<bool()>& condition,
                std::chrono::milliseconds deadline = std::chrono::seconds(20));

/// The seed of a random test: ZMQWRITER_SEED, or a new one each time. It is printed.
unsigned long random_seed();

/// How many times as long as usual a random test runs: ZMQWRITER_TEST_FACTOR, 1 where it is not
/// set.
unsigned long test_factor();

}  // namespace test
