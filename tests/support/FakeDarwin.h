// A fake Darwin: what the probes ask the system, answered as a test says.
//
// Linking FakeDarwin.cc puts these calls of the whole program under its control while a FakeDarwin
// exists: proc_listpids, proc_pidinfo, proc_pidfdinfo, sysctlbyname, sysctl, mach_host_self,
// host_page_size, host_statistics, and of POSIX getpwuid and getpriority. Without one
// Darwin's calls fail and those of POSIX do what they always do. One at a time; not thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace test {

/// A process as its descriptors and its task information show it.
struct FakeProcess {
  FakeProcess(std::int32_t pid, std::string name, std::uint32_t uid)
      : pid(pid), name(std::move(name)), uid(uid) {}

  /// Adds an open socket with the given handle; returns the process.
  FakeProcess& socket(std::int32_t fd, std::uint64_t handle);
  /// Adds another kind of descriptor, whose socket information nevertheless gives `handle`.
  FakeProcess& other(std::int32_t fd, std::uint32_t type, std::uint64_t handle);

  std::int32_t pid;
  std::string name;
  std::uint32_t uid;
  std::vector<std::pair<std::int32_t, std::uint32_t>> descriptors;  ///< number and type
  std::map<std::int32_t, std::uint64_t> handles;

  bool has_task_information = true;
  std::optional<int> descriptor_bytes;  ///< what sizing the list tells, if not 8 per descriptor
  bool list_fetch_works = true;         ///< false: it vanished after the sizing call
  bool socket_information_works = true;
};

/// A list of TCP control blocks, composed byte by byte at Darwin's offsets.
class PcbList {
 public:
  /// One control block; addresses and ports as they stand in memory (network byte order).
  struct Pcb {
    std::uint32_t length = kRecordBytes;
    std::uint32_t local_address = 0;
    std::uint16_t local_port = 0;
    std::uint32_t foreign_address = 0;
    std::uint16_t foreign_port = 0;
    std::uint32_t handle = 0;
    std::uint64_t generation = 1;
    std::uint8_t family_flags = 1;
    std::int32_t protocol = 6;
  };

  static constexpr std::uint32_t kGenerationBytes = 24;
  static constexpr std::uint32_t kRecordBytes = 524;

  /// Begins with a header of the given generation.
  explicit PcbList(std::uint64_t generation = 1000);

  PcbList& add(const Pcb& pcb);
  /// Ends the list. Without it there is no trailer.
  PcbList& end();
  /// Cuts the list to `bytes`, or fills it up with zero bytes.
  PcbList& cut(std::size_t bytes);
  /// Overwrites the header's own length.
  PcbList& header_length(std::uint32_t length);

  const std::vector<char>& bytes() const { return bytes_; }

 private:
  void append_generation();
  template <typename T>
  void put(std::size_t offset, T value);

  std::uint64_t generation_;
  std::vector<char> bytes_;
};

class FakeDarwin {
 public:
  FakeDarwin();
  ~FakeDarwin();
  FakeDarwin(const FakeDarwin&) = delete;
  FakeDarwin& operator=(const FakeDarwin&) = delete;

  // Processes, in the order in which they are listed.
  std::vector<FakeProcess> processes;
  std::optional<int> pid_sizing;  ///< what sizing the list tells, if not 4 bytes per pid and 80
  std::map<std::uint32_t, std::string> users;

  // The list of control blocks.
  std::vector<char> pcb_list;
  std::optional<std::size_t> pcb_sizing;  ///< what sizing tells, if not the list's length
  bool pcb_sizing_works = true;
  bool pcb_fetch_works = true;
  std::optional<std::size_t> pcb_fetched;  ///< what fetching tells, if not the list's length

  // Figures of the host.
  bool load_works = true;
  std::uint32_t load_average = 0;
  long load_scale = 1000;
  int priority = 0;
  bool memory_size_works = true;
  std::uint64_t memory_bytes = 0;
  bool page_size_works = true;
  std::uint64_t page_bytes = 4096;
  bool page_counts_work = true;
  std::uint32_t active_pages = 0;
  std::uint32_t inactive_pages = 0;
  std::uint32_t wired_pages = 0;

  // What was asked, one line per call: "pidinfo 7 fds size", "pidinfo 7 fds", "pidinfo 7 task",
  // "fdinfo 7 3", "getpwuid 501".
  std::vector<std::string> calls;
};

}  // namespace test
