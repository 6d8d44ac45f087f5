#include "TempDir.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <thread>

namespace test {

TempDir::TempDir() : previous_(std::filesystem::current_path()) {
  std::string pattern = (std::filesystem::temp_directory_path() / "zmqwriter-test-XXXXXX").string();
  if (!mkdtemp(pattern.data()))
    throw std::runtime_error("mkdtemp failed for " + pattern);
  path_ = std::filesystem::canonical(pattern).string();
  std::filesystem::current_path(path_);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::current_path(previous_, ignored);
  std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out.write(content.data(), static_cast<std::streamsize>(content.size())))
    throw std::runtime_error("cannot write " + path);
}

namespace {

unsigned long from_environment(const char* name, unsigned long otherwise) {
  const char* text = getenv(name);
  return text && *text ? strtoul(text, nullptr, 0) : otherwise;
}

}  // namespace

unsigned long random_seed() {
  const unsigned long seed = from_environment("ZMQWRITER_SEED", std::random_device()());
  std::cout << "ZMQWRITER_SEED=" << seed << std::endl;
  return seed;
}

unsigned long test_factor() {
  return from_environment("ZMQWRITER_TEST_FACTOR", 1);
}

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end)
      return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace test
