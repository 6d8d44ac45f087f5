// What the delivery worker makes of its settings: endpoints, the server key, the spool's limits.
//
// Pure functions, apart from working_disk_mb, so that a program which looks over a configuration
// before it is used (`zmqwriter check`) asks the same code as the worker and cannot disagree. Any
// thread; nothing is kept.
#pragma once

#include <ctype.h>
#include <limits.h>
#include <string.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace worker_settings {

// Keys of the host's settings file, and the defaults of those that no script constant stands
// behind.
constexpr const char* kServer = "zmq.server";
constexpr const char* kPublicKey = "zmq.public_key";
constexpr const char* kSecondaryServers = "zmq.secondary_servers";
constexpr const char* kDiskRelative = "disk.usage.relative";
constexpr int kDefaultDiskRelative = 10;
constexpr const char* kDiskAbsolute = "disk.usage.absolute";
constexpr int kDefaultDiskAbsolute = 500;
constexpr const char* kChunkSize = "pqueue.chunk.size";
constexpr int kDefaultChunkSize = 10;

/// Time-out of a send and of a receive, and how long a closed socket lingers.
constexpr int kTimeoutMs = 3000;

/// libzmq's form of a CURVE key: 40 characters of Z85 and a terminating zero.
constexpr size_t kCurveKeyLength = 41;

// -- Endpoints ------------------------------------------------------------------------------------

/// "tcp://" in front unless there is a scheme, ":5555" behind unless there is a port, whatever the
/// scheme. The text is otherwise taken as it is.
inline std::string correct_uri(std::string uri) {
  if (uri.find("://") == std::string::npos)
    uri = "tcp://" + uri;
  // The search begins one past the first character of the host, and takes no notice of brackets.
  // Both are required.
  if (uri.find(':', uri.find("://") + 4) == std::string::npos)
    uri += ":5555";
  return uri;
}

static inline void trim(std::string& text) {
  const auto is_space = [](unsigned char c) { return isspace(c) != 0; };
  text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), is_space));
  text.erase(std::find_if_not(text.rbegin(), text.rend(), is_space).base(), text.end());
}

/// The servers of a list with commas, without the blanks around them, in their order. Empty pieces
/// are left out. The primary is no such list: it is not trimmed.
inline std::vector<std::string> split_servers(const std::string& list) {
  std::vector<std::string> servers;
  for (size_t start = 0; start <= list.size();) {
    const size_t end = std::min(list.find(',', start), list.size());
    std::string piece = list.substr(start, end - start);
    trim(piece);
    if (!piece.empty())
      servers.push_back(piece);
    start = end + 1;
  }
  return servers;
}

// -- The server key -------------------------------------------------------------------------------

/// The first `length` bytes are what libzmq is given.
struct ServerKey {
  unsigned char bytes[kCurveKeyLength];
  size_t length;
};

/// The byte that two hexadecimal digits stand for. Only upper-case letters are decoded, as
/// required: a lower-case letter comes out right as the first digit only, as the second it also
/// sets bit 0x20.
inline unsigned char decode_digits(signed char first, signed char second) {
  const int high = first > 0x40 ? first - 7 : first;
  const int low = second > 0x40 ? second - 0x37 : second - 0x30;
  return static_cast<unsigned char>(static_cast<unsigned int>(high) << 4 |
                                    static_cast<unsigned int>(low));
}

/// The key from hexadecimal text of any length: what libzmq makes of the length that comes out is
/// left to libzmq.
inline ServerKey decode_server_key(const std::string& hex) {
  ServerKey key = ServerKey();
  const char* digits = hex.c_str();
  const size_t bytes = strlen(digits) / 2;
  key.length = std::min(bytes, kCurveKeyLength);
  for (size_t i = 0; i < key.length; ++i)
    key.bytes[i] = decode_digits(static_cast<signed char>(digits[2 * i]),
                                 static_cast<signed char>(digits[2 * i + 1]));
  return key;
}

// -- Limits of the spool --------------------------------------------------------------------------

/// Megabytes as bytes, by a 32-bit shift: 2048 MB and more wrap around, as limits are required to.
inline int megabytes_to_bytes(int megabytes) {
  return static_cast<int>(static_cast<unsigned int>(megabytes) << 20);
}

/// Toward zero. What no int can hold gives what x86-64's conversion gives.
inline int truncate_to_int(double value) {
  return value > INT_MIN - 1.0 && value < INT_MAX + 1.0 ? static_cast<int>(value) : INT_MIN;
}

/// Size of the file system that holds the working directory (not the spool); 0 when that cannot be
/// found out. Computed with f_bsize and not f_frsize, as the limit is defined.
inline double working_disk_mb() {
  char folder[1024];
  struct statvfs disk;
  if (!getcwd(folder, sizeof folder) || statvfs(folder, &disk) != 0)
    return 0.0;
  return static_cast<double>(disk.f_bsize) * static_cast<double>(disk.f_blocks) / 1048576.0;
}

/// The smaller of `absolute` MB and `relative` per cent of the disk, in MB.
inline int spool_limit_mb(int relative, int absolute, double disk_mb) {
  const double relative_mb = relative * disk_mb / 100.0;
  return absolute <= relative_mb ? absolute : truncate_to_int(relative_mb);
}

}  // namespace worker_settings
