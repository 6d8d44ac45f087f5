// Any bytes as a chunk file, and any operations on the spool over it. The spool must do what its
// model does; the reader of the tools must survive the same files, and its repair must not fail.
//
//   byte 0          bits 0 to 4: number of operations; bit 7: the file lies there as the head and
//                   as an older file as well
//   operations      one byte each: what (bits 0 to 2) and with which figure (bits 3 to 7)
//   the rest        the bytes of queue.dat

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Paths.h"
#include "SpoolBesideModel.h"
#include "SpoolReader.h"
#include "SpoolRepair.h"
#include "TempDir.h"

namespace {

using namespace zmqwriter;

constexpr std::size_t kLongestInput = 4096;

void require(bool holds, const std::string& what) {
  if (holds)
    return;
  std::fprintf(stderr, "%s\n", what.c_str());
  std::abort();
}

void operate(unsigned char operation, test::SpoolBesideModel* both) {
  const unsigned figure = operation >> 3;
  switch (operation & 7) {
    case 0:
      return both->Store(std::string(figure, static_cast<char>(figure)));
    case 1:
      return both->Store(std::string(figure == 31 ? 65535 : figure * 67, '\xff'));
    case 2:
      return both->SetLimits(static_cast<std::int32_t>(figure * 16) - 1, 0);
    case 3:
      return both->Restart();
    case 4:
      return both->CrashAndStart();
    default:
      return both->Take();
  }
}

bool is_event(const std::string& payload) {
  return payload.size() % 2 == 0;
}

void read_and_repair(const std::string& folder) {
  const RepairPlan plan = plan_repair(folder, find_chunks(folder), is_event);
  for (const HeaderRepair& repair : plan.headers) {
    std::filesystem::remove(repair_header(repair, ""));
    const auto number = repair.path.find_last_of('.') == repair.path.size() - 2 ? 1u : 0u;
    const Diagnosis after = diagnose(ChunkFile(folder, number), is_event);
    require(after.counted.size() == repair.record_count, "a repaired header counts too few");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const test::TempDir temp;
  const std::string folder = paths::kSpoolFolder;
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  if (size == 0 || size > kLongestInput)
    return 0;

  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::size_t operations = std::min<std::size_t>(input[0] & 0x1f, size - 1);
  const std::string chunk = input.substr(1 + operations);
  test::write_file(folder + "/queue.dat", chunk);
  if (input[0] & 0x80)
    test::write_file(folder + "/queue.dat.1", chunk);

  read_and_repair(folder);
  test::write_file(folder + "/queue.dat", chunk);
  test::SpoolBesideModel both;
  require(both.Difference().empty(), "different at the start");
  for (std::size_t i = 1; i <= operations; ++i) {
    operate(static_cast<unsigned char>(input[i]), &both);
    const std::string difference = both.Difference();
    require(difference.empty(), "after operation " + std::to_string(i) + ": " + difference);
  }
  both.Restart();
  require(both.Difference().empty(), "different after the restart");
  return 0;
}
