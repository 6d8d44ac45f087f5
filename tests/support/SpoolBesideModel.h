// The spool and its model side by side: every operation is done to both, and Difference says
// where they part. Works in the spool folder of the current directory (support/TempDir.h), which
// nobody else may touch. Needs access to private members.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "SpoolModel.h"

class PersistentQueue;

namespace test {

/// Content of every regular file in `folder`, by name.
std::map<std::string, std::string> files_of(const std::string& folder);

/// An unclean stop: every operation has flushed what it wrote, so taking the stream away from the
/// spool leaves the disk as the end of the process would.
void crash(std::unique_ptr<PersistentQueue> spool);

class SpoolBesideModel {
 public:
  /// Starts both on what is in the spool folder.
  SpoolBesideModel();
  ~SpoolBesideModel();

  void Store(const std::string& payload);
  void Take();
  void SetLimits(std::int32_t chunk_limit_bytes, std::int32_t total_limit_bytes);
  void Restart();
  void CrashAndStart();

  bool IsEmpty() const { return model_.IsEmpty(); }
  std::size_t BytesOnDisk() const;
  std::int32_t HeadBytes() const { return model_.head_bytes; }

  /// What is different in the latest answer, the counts, the warnings of the latest start, or the
  /// bytes on disk; empty when nothing is.
  std::string Difference();

 private:
  void Start();

  std::unique_ptr<PersistentQueue> spool_;
  SpoolModel model_;
  std::string answer_difference_;
};

}  // namespace test
