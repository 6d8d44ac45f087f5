// The worked example of docs/spool-format.md against a file that the spool wrote.

#include <sstream>

#include "SpoolFixture.h"

namespace {

// The bytes of the block that begins with ```hex: eight digits of offset, then pairs of digits.
std::string bytes_of_the_example() {
  std::istringstream document(test::read_file(ZMQWRITER_SOURCE_DIR "/docs/spool-format.md"));
  std::string line, bytes;
  while (std::getline(document, line) && line != "```hex") {
  }
  while (std::getline(document, line) && line != "```") {
    EXPECT_EQ(std::stoul(line.substr(0, 8), nullptr, 16), bytes.size()) << line;
    bytes += test::hex(line.substr(8));
  }
  return bytes;
}

class SpoolDocumentTest : public testing::Test, protected test::SpoolFixture {};

TEST_F(SpoolDocumentTest, WorkedExampleIsWhatTheSpoolWrites) {
  store("first");
  store("second");
  store("third");
  take();
  stop();
  EXPECT_EQ(content().size(), 40u);
  EXPECT_EQ(bytes_of_the_example(), content());
}

}  // namespace
