#include "LineReader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "StopSignals.h"

namespace zmqwriter {

namespace {

constexpr std::size_t kReadBytes = 65536;
constexpr std::string_view kGzip = "\x1f\x8b";

int open_log(const std::string& file) {
  std::error_code ignored;
  if (std::filesystem::is_directory(file, ignored))
    throw LogError(file + ": this is a folder, not a log");
  const int descriptor = file == "-" ? dup(STDIN_FILENO) : open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0)
    throw LogError(file + ": cannot be read: " + std::strerror(errno));
  return descriptor;
}

}  // namespace

/// Undoes gzip, also of several members one after the other.
class LineReader::Inflater {
 public:
  explicit Inflater(LineReader* reader) : reader_(reader), input_(kReadBytes, '\0') {
    constexpr int kGzipOnly = 16 + MAX_WBITS;
    if (inflateInit2(&stream_, kGzipOnly) != Z_OK)
      throw LogError(reader->name() + ": no memory to undo the compression");
  }
  ~Inflater() { inflateEnd(&stream_); }
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;

  void Give(std::string_view bytes) {
    std::copy(bytes.begin(), bytes.end(), input_.begin());
    SetInput(bytes.size());
  }

  std::size_t Read(char* to, std::size_t size) {
    stream_.next_out = reinterpret_cast<Bytef*>(to);
    stream_.avail_out = static_cast<uInt>(size);
    while (stream_.avail_out == size) {
      if (stream_.avail_in == 0)
        SetInput(reader_->ReadBytes(&input_[0], input_.size()));
      if (stream_.avail_in == 0 && ended_)
        return 0;
      if (stream_.avail_in == 0)
        throw LogError(reader_->name() + ": the compressed data ends early");
      if (ended_)
        inflateReset(&stream_);
      const int result = inflate(&stream_, Z_NO_FLUSH);
      ended_ = result == Z_STREAM_END;
      if (result != Z_OK && !ended_)
        throw LogError(reader_->name() + ": the compressed data is damaged");
    }
    return size - stream_.avail_out;
  }

 private:
  void SetInput(std::size_t size) {
    stream_.next_in = reinterpret_cast<Bytef*>(&input_[0]);
    stream_.avail_in = static_cast<uInt>(size);
  }

  LineReader* const reader_;
  std::string input_;
  z_stream stream_ = {};
  bool ended_ = false;  // a member has
};

LineReader::LineReader(const std::string& file)
    : name_(file == "-" ? kStandardInput : file),
      descriptor_(open_log(file)),
      may_be_compressed_(true) {
  struct stat status;
  growing_ = pipe_ = fstat(descriptor_.get(), &status) == 0 && !S_ISREG(status.st_mode);
}

LineReader::LineReader(int descriptor, const std::string& name)
    : name_(name), descriptor_(descriptor), growing_(true) {}

LineReader::~LineReader() = default;

bool LineReader::Next() {
  if (put_back_) {
    put_back_ = false;
    return true;
  }
  for (;;) {
    const std::size_t end = buffer_.find('\n', scanned_);
    if (end != std::string::npos && in_long_line_) {
      offset_ += end + 1 - begin_;
      begin_ = scanned_ = end + 1;
      in_long_line_ = false;
      continue;
    }
    if (end != std::string::npos)
      return TakeLine(end + 1 - begin_, true);
    scanned_ = buffer_.size();
    if (in_long_line_) {
      offset_ += buffer_.size() - begin_;
      begin_ = buffer_.size();
    } else if (buffer_.size() - begin_ > kLongestLine) {
      return TakeLongLine();
    }
    if (!Fill())
      return !growing_ && begin_ < buffer_.size() && TakeLine(buffer_.size() - begin_, false);
  }
}

bool LineReader::TakeLine(std::size_t size, bool complete) {
  line_ = std::string_view(buffer_).substr(begin_, complete ? size - 1 : size);
  complete_ = complete;
  too_long_ = false;
  ++number_;
  line_offset_ = offset_;
  offset_ += size;
  begin_ += size;
  scanned_ = begin_;
  return true;
}

/// Its rest is read past by the next call of Next.
bool LineReader::TakeLongLine() {
  TakeLine(buffer_.size() - begin_, false);
  line_ = {};
  too_long_ = in_long_line_ = true;
  std::string().swap(buffer_);
  begin_ = scanned_ = 0;
  return true;
}

/// Appends to the buffer; false at the end.
bool LineReader::Fill() {
  if (may_be_compressed_)
    FindCompression();
  if (begin_ < buffer_.size() && scanned_ == begin_)
    return true;  // what was read for that
  buffer_.erase(0, begin_);
  scanned_ -= begin_;
  begin_ = 0;
  if (pipe_ && growing_ && !HasMore(0))
    return false;
  const std::size_t had = buffer_.size();
  buffer_.resize(had + kReadBytes);
  const std::size_t got =
      inflater_ ? inflater_->Read(&buffer_[had], kReadBytes) : ReadBytes(&buffer_[had], kReadBytes);
  buffer_.resize(had + got);
  if (pipe_ && got == 0)
    Finish();
  return got > 0;
}

bool LineReader::HasMore(int timeout_ms) const {
  pollfd input = {descriptor_.get(), POLLIN, 0};
  return poll(&input, 1, timeout_ms) != 0;
}

void LineReader::FindCompression() {
  may_be_compressed_ = false;
  std::string start(kReadBytes, '\0');
  std::size_t size = 0;
  while (size < kGzip.size()) {
    const std::size_t got = ReadBytes(&start[size], start.size() - size);
    size += got;
    if (got == 0)
      break;
  }
  start.resize(size);
  if (start.compare(0, kGzip.size(), kGzip) != 0) {
    buffer_ = start;
    return;
  }
  Finish();
  inflater_ = std::make_unique<Inflater>(this);
  inflater_->Give(start);
}

std::size_t LineReader::ReadBytes(char* to, std::size_t size) {
  ssize_t got;
  do
    got = read(descriptor_.get(), to, size);
  while (got < 0 && errno == EINTR && !stop_requested());
  if (got < 0)
    throw LogError(name_ + ": cannot be read: " + std::strerror(errno));
  bytes_read_ += static_cast<std::uint64_t>(got);
  return static_cast<std::size_t>(got);
}

}  // namespace zmqwriter
