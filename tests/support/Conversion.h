// A record's event message, made and taken apart again, for the tests of the conversion.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "aggregator_generated.h"

#include "RecordConversion.h"

#include "standin/ReportRecorder.h"

#include "RecordBuilder.h"

namespace test {

using Bytes = std::vector<std::uint8_t>;

/// The message of `record`; fails the test if the FlatBuffers verifier refuses it.
inline Bytes convert(RecordBuilder& record, const std::string& agent_id = "agent-7",
                     std::size_t max_text_bytes = logging::writer::kMaxTextBytes) {
  flatbuffers::FlatBufferBuilder builder(logging::writer::kInitialBufferBytes);
  logging::writer::convert_record(builder, agent_id, record.size(), record.fields(), record.vals(),
                                  max_text_bytes);
  Bytes message(builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize());
  flatbuffers::Verifier::Options options;
  options.max_tables = 100000000;
  flatbuffers::Verifier verifier(message.data(), message.size(), options);
  EXPECT_TRUE(Dravenholt::VerifyNetworkEventBuffer(verifier));
  return message;
}

inline const Dravenholt::NetworkEvent* event_of(const Bytes& message) {
  return Dravenholt::GetNetworkEvent(message.data());
}

/// The payload as a table of no particular type; null when there is none.
inline const flatbuffers::Table* payload_of(const Bytes& message) {
  return static_cast<const flatbuffers::Table*>(event_of(message)->data());
}

/// "<absent>" for a field that is not in the buffer, to tell it from an empty text.
inline std::string text_of(const flatbuffers::String* text) {
  return text ? text->str() : "<absent>";
}

inline std::string text_field(const flatbuffers::Table* table, flatbuffers::voffset_t slot) {
  return text_of(table->GetPointer<const flatbuffers::String*>(slot));
}

/// How many of a table's fields are in the buffer.
inline int fields_present(const flatbuffers::Table* table) {
  const flatbuffers::voffset_t vtable_bytes =
      flatbuffers::ReadScalar<flatbuffers::voffset_t>(table->GetVTable());
  int present = 0;
  for (flatbuffers::voffset_t slot = 4; slot < vtable_bytes; slot += 2)
    present += table->CheckField(slot) ? 1 : 0;
  return present;
}

/// Keeps the reports of each test.
class ReportingTest : public ::testing::Test {
 protected:
  std::vector<std::string> weirds() const { return recorder_.Texts(standin::ReportKind::kWeird); }
  std::vector<std::string> warnings() const {
    return recorder_.Texts(standin::ReportKind::kWarning);
  }
  std::vector<std::string> errors() const { return recorder_.Texts(standin::ReportKind::kError); }

  standin::ReportRecorder recorder_;
};

}  // namespace test
