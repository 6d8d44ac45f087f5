// Files, as the operating system has them. Where a function fails, errno says why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zmqwriter {

/// Closes the descriptor that it holds; -1 is none.
class FileDescriptor {
 public:
  explicit FileDescriptor(int number = -1) : number_(number) {}
  ~FileDescriptor() { Reset(-1); }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return number_; }
  /// Gives the descriptor away.
  int Release();
  /// Closes the descriptor and takes another.
  void Reset(int number);

 private:
  int number_;
};

/// How long a pipe or a device may accept nothing.
constexpr int kPatienceMs = 1000;

/// Writes all bytes to a descriptor, blocking or not, in as many attempts as it takes. Returns how
/// many were written; fewer than all mean a failure. With a patience to a pipe or a device: fails
/// with EAGAIN when it accepts nothing for so long.
std::size_t write_fully(int descriptor, std::string_view bytes, int patience_ms = -1);

/// The content of a file of at most `longest` bytes. Throws std::runtime_error that names the file.
std::string read_small_file(const std::string& path, std::size_t longest);

/// Whether the path leads to the file that is open.
bool leads_to(const std::string& path, int descriptor);

/// Renames a file, but fails with EEXIST where the new name is taken. (Where the file system has no
/// hard links, another program could take the name between the look and the renaming.)
bool rename_without_replacing(const std::string& from, const std::string& to);

/// Forces the folder of `path` to disk: a new name, or a renaming, is there only then.
bool sync_folder_of(const std::string& path);

/// Raises the limit of open files of this process as far as the system lets it; returns the limit.
std::uint64_t raise_open_files();

/// Appends the names of a folder's entries, in no order. False when it cannot be read.
bool list_folder(const std::string& folder, std::vector<std::string>* names);

/// Bytes that are free on the disk of a path; nothing when that is not known.
std::optional<std::uint64_t> disk_free(const std::string& path);

}  // namespace zmqwriter
