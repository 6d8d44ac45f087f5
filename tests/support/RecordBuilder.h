// Log records for tests: the two parallel arrays that the host hands to DoWrite.
//
//     test::RecordBuilder record;
//     record.text("ptype", "general").addr("id.orig_h", "10.0.0.1").port("id.orig_p", 51000);
//     writer.DoWrite(record.size(), record.fields(), record.vals());
//
// Values look exactly as the host stores them: texts without a terminator in blocks of their own
// length, so that reading a byte too many is caught by AddressSanitizer; ports and counts in host
// order; addresses in network order; unset values with the whole union zero.
//
// The builder owns fields and values; the arrays stay valid until the next column is added. Not
// thread-safe; one thread may read the arrays while no column is added.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "threading/SerialTypes.h"

namespace test {

class RecordBuilder {
 public:
  RecordBuilder() = default;
  ~RecordBuilder();
  RecordBuilder(const RecordBuilder&) = delete;
  RecordBuilder& operator=(const RecordBuilder&) = delete;

  RecordBuilder& text(const std::string& name, const std::string& value);
  RecordBuilder& enumerator(const std::string& name, const std::string& value);
  RecordBuilder& count(const std::string& name, std::uint64_t value);
  RecordBuilder& integer(const std::string& name, std::int64_t value);
  RecordBuilder& boolean(const std::string& name, bool value);
  RecordBuilder& port(const std::string& name, std::uint64_t value);
  RecordBuilder& time(const std::string& name, double seconds);
  RecordBuilder& interval(const std::string& name, double seconds);
  RecordBuilder& real(const std::string& name, double value);
  /// `address` in text form, IPv4 or IPv6; throws std::invalid_argument for anything else.
  RecordBuilder& addr(const std::string& name, const std::string& address);
  /// A set of strings; elements keep their order.
  RecordBuilder& set(const std::string& name, const std::vector<std::string>& elements);
  /// A vector of strings.
  RecordBuilder& vec(const std::string& name, const std::vector<std::string>& elements);
  /// A column of that type that the record does not fill.
  RecordBuilder& unset(const std::string& name, TypeTag type, TypeTag subtype = TYPE_VOID);
  /// Any value; the builder takes it over.
  RecordBuilder& raw(const std::string& name, threading::Value* value, TypeTag subtype = TYPE_VOID);

  int size() const { return static_cast<int>(vals_.size()); }
  const threading::Field* const* fields() const { return fields_.data(); }
  threading::Value** vals() { return vals_.data(); }
  /// Copies of the field descriptions, as standin::Host::CreateWriter takes them.
  std::vector<threading::Field> field_list() const;

 private:
  std::vector<const threading::Field*> fields_;
  std::vector<threading::Value*> vals_;
};

/// A value of one of the types that carry text (string, enum, file, func); the caller owns it.
threading::Value* text_value(const std::string& text, TypeTag type = TYPE_STRING);
/// A set (TYPE_TABLE) or vector (TYPE_VECTOR) that owns `elements`; the caller owns the result.
threading::Value* list_value(TypeTag type, const std::vector<threading::Value*>& elements);

/// A deep copy of the builder's values, as a host's batch needs them: `new Value*[size]`, each
/// entry with `new`; the caller (usually WriterFrontend::Write) takes all of it over.
threading::Value** copy_values(RecordBuilder& record);

}  // namespace test
