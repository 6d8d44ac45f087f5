// The plug-in's spool before and after a replay: whether it can be used, and whether it has what it
// should have.
#pragma once

#include <cstdint>
#include <string>

namespace zmqwriter {

class SpoolAccount {
 public:
  /// `read_again`: what is neither sent nor on disk is not lost, as the next start reads it again.
  SpoolAccount(const std::string& folder, bool read_again)
      : folder_(folder), read_again_(read_again) {}

  /// Looks at the spool before the plug-in opens it. Throws std::runtime_error with what to do when
  /// it is damaged or another process uses it; with `ignore` it only warns of that.
  void Begin(bool ignore);

  /// Looks at the spool once the plug-in has closed it, and prints on standard error what is on
  /// disk and what was lost. `unsent` is the number of records that were read less those that were
  /// delivered, `stored` those of the plug-in's status, `repeated` those that the next start sends
  /// again. Returns whether nothing is left or lost.
  bool End(std::int64_t unsent, std::int64_t stored, std::uint64_t repeated) const;

  /// The same where the plug-in was not stopped, after its spool was closed in its place.
  void EndWithoutStop(std::int64_t unsent, std::uint64_t repeated) const;

  const std::string& folder() const { return folder_; }
  bool read_again() const { return read_again_; }

 private:
  const char* LostWord() const;
  std::int64_t PrintRecordsOnDisk() const;
  static void PrintRepeated(std::uint64_t repeated);

  const std::string folder_;
  const bool read_again_;
  std::int64_t records_before_ = 0;
};

}  // namespace zmqwriter
