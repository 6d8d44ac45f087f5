// Reads the lines of a log: of a file, plain or compressed by gzip, which its first bytes tell, or
// of standard input.
//
// Lines end with LF. Memory holds one line: of a line of more than kLongestLine bytes the rest is
// read past. A file that grows, or a pipe until its end, gives no line before its line end has been
// written. What is compressed does not grow: reading it from a pipe waits.
//
// Errors: LogError. One thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Files.h"

namespace zmqwriter {

class LogError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class LineReader {
 public:
  static constexpr std::size_t kLongestLine = std::size_t{16} << 20;
  static constexpr char kStandardInput[] = "standard input";  ///< its name()

  /// Opens a file; "-" is standard input.
  explicit LineReader(const std::string& file);
  /// Takes over a descriptor of a plain file that grows.
  LineReader(int descriptor, const std::string& name);
  ~LineReader();

  /// Reads the next line; false at the end, which is not final while the file grows.
  bool Next();
  /// Whether a pipe has more, or has ended; waits for that.
  bool HasMore(int timeout_ms) const;
  /// Makes Next give the current line once more.
  void PutBack() { put_back_ = true; }
  bool pending() const { return put_back_; }

  /// The current line without its line end. Valid until a call of Next that gives another one.
  std::string_view line() const { return line_; }
  /// Whether the line has its line end; a last line may have none.
  bool complete() const { return complete_; }
  /// The line is longer than kLongestLine; line() is empty.
  bool too_long() const { return too_long_; }
  std::uint64_t number() const { return number_; }

  /// Where reading continues, in bytes of the uncompressed log: behind the current line, or before
  /// it when it was put back; not before what is skipped.
  std::uint64_t offset() const { return std::max(put_back_ ? line_offset_ : offset_, skip_to_); }
  /// Bytes read from the file, compressed or not.
  std::uint64_t bytes_read() const { return bytes_read_; }
  /// How much of the file's size is done.
  std::uint64_t progress() const { return inflater_ ? bytes_read_ : offset(); }

  /// Lines up to this offset were handled by an earlier run.
  void SkipTo(std::uint64_t offset) { skip_to_ = offset; }
  /// Whether the current line is one of them.
  bool skipping() const { return offset_ <= skip_to_; }

  bool growing() const { return growing_; }
  /// The file grows no more: Next gives a last line without line end.
  void Finish() { growing_ = false; }

  const std::string& name() const { return name_; }
  int descriptor() const { return descriptor_.get(); }

 private:
  class Inflater;

  bool Fill();
  std::size_t ReadBytes(char* to, std::size_t size);
  void FindCompression();
  bool TakeLine(std::size_t size, bool complete);
  bool TakeLongLine();

  const std::string name_;
  FileDescriptor descriptor_;
  bool growing_ = false;
  bool pipe_ = false;
  bool may_be_compressed_ = false;
  std::unique_ptr<Inflater> inflater_;  // of a compressed file

  std::string buffer_;
  std::size_t begin_ = 0;    // of what is not taken yet, in the buffer
  std::size_t scanned_ = 0;  // no line end lies before this
  bool in_long_line_ = false;

  std::string_view line_;
  bool complete_ = false;
  bool too_long_ = false;
  bool put_back_ = false;
  std::uint64_t number_ = 0;
  std::uint64_t line_offset_ = 0;
  std::uint64_t offset_ = 0;
  std::uint64_t bytes_read_ = 0;
  std::uint64_t skip_to_ = 0;
};

}  // namespace zmqwriter
