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

}  // namespace test
