// What the replay of the decoder's corpus (DecoderFuzz) is worth: its inputs are accepted and
// refused, and the accepted ones are of every type.
#include "EventJson.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "TempDir.h"
#include "aggregator_generated.h"

namespace {

using namespace zmqwriter;

TEST(DecoderCorpusTest, HoldsAnAcceptedEventOfEachTypeAndRefusedOnes) {
  const std::string folder = ZMQWRITER_SOURCE_DIR "/tests/fuzz/corpus/decoder";
  std::set<int> accepted;
  int refused = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string bytes = test::read_file(entry.path().string());
    const EventMessage event(bytes.data(), bytes.size());
    if (event.valid())
      accepted.insert(event.PayloadNumber());
    else
      ++refused;
  }
  for (int type = Dravenholt::Data_MIN + 1; type <= Dravenholt::Data_MAX; ++type)
    EXPECT_EQ(accepted.count(type), 1u) << "no event of type " << type;
  EXPECT_GT(refused, 0);
}

}  // namespace
