// A spool in a temporary folder, and verbs for it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CallLog.h"
#include "Paths.h"
#include "PersistentQueue.h"
#include "SpoolBesideModel.h"
#include "TempDir.h"

namespace test {

/// Texts of the reports of one kind since the fixture began, oldest first.
inline std::vector<std::string> reports_of(const std::string& kind) {
  std::vector<std::string> texts;
  for (const std::string& line : CallLog::instance().starting_with(kind + ": "))
    texts.push_back(line.substr(kind.size() + 2));
  return texts;
}

/// Bytes given as hexadecimal digits; blanks do not count.
inline std::string hex(const std::string& digits) {
  std::string bytes, compact;
  for (char c : digits)
    if (c != ' ')
      compact.push_back(c);
  for (std::size_t i = 0; i + 1 < compact.size(); i += 2)
    bytes.push_back(static_cast<char>(std::stoi(compact.substr(i, 2), nullptr, 16)));
  return bytes;
}

inline std::string u16(unsigned value) {
  return {static_cast<char>(value & 0xff), static_cast<char>(value >> 8 & 0xff)};
}

inline std::string u32(std::uint32_t value) {
  return u16(value & 0xffff) + u16(value >> 16);
}

inline std::string header(std::uint32_t used_size, std::uint32_t record_count) {
  return "ZMQF" + u32(used_size) + u32(record_count);
}

inline std::string record(unsigned prev_length, const std::string& payload) {
  return u16(static_cast<unsigned>(payload.size())) + u16(prev_length) + payload;
}

class SpoolFixture {
 public:
  SpoolFixture() {
    // Only the last component of the spool's folder is created by the spool itself.
    std::filesystem::create_directory("orvik-spool");
    CallLog::instance().clear();
  }
  ~SpoolFixture() { stop(); }

  static std::string folder() { return paths::kSpoolFolder; }
  static std::string path(const std::string& name = "queue.dat") { return folder() + "/" + name; }

  PersistentQueue& spool() {
    if (!spool_)
      start();
    return *spool_;
  }
  void start() { spool_ = std::make_unique<PersistentQueue>(); }
  /// A clean stop: the head file gets its header.
  void stop() { spool_.reset(); }
  void reopen() {
    stop();
    start();
  }
  /// An unclean stop.
  void crash() {
    spool();
    test::crash(std::move(spool_));
  }
  void limit_chunks(std::int32_t bytes) { spool().SetLimits(bytes, 524288000); }

  void store(const std::string& payload) {
    spool().Store(static_cast<std::uint16_t>(payload.size()), payload.data());
  }
  /// What Get gives: no value for null, whose length must be 0.
  std::optional<std::string> take() {
    std::uint16_t length = 4711;
    char* payload = static_cast<char*>(spool().Get(&length));
    if (!payload) {
      EXPECT_EQ(length, 0);
      return std::nullopt;
    }
    std::string text(payload, length);
    free(payload);
    return text;
  }

  /// Takes until the spool says that it is empty; the payloads, newest first.
  std::vector<std::string> take_all() {
    std::vector<std::string> payloads;
    for (int takes = 0; !spool().IsEmpty() && takes < 100000; ++takes)
      if (const auto payload = take())
        payloads.push_back(*payload);
    EXPECT_TRUE(spool().IsEmpty());
    return payloads;
  }

  /// Puts a file into the folder before the spool starts.
  static void put(const std::string& name, const std::string& content) {
    std::filesystem::create_directory(folder());
    write_file(path(name), content);
  }
  static std::string content(const std::string& name = "queue.dat") {
    return read_file(path(name));
  }
  static std::map<std::string, std::string> files() { return files_of(folder()); }
  static std::vector<std::string> names() {
    std::vector<std::string> names;
    for (const auto& file : files())
      names.push_back(file.first);
    return names;
  }

 private:
  TempDir temp_;
  std::unique_ptr<PersistentQueue> spool_;
};

}  // namespace test
