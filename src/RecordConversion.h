// From one log record to one finished event message.
//
// The conversion needs no worker and no I/O: it reads the record, adds to a FlatBuffers builder
// and, for odd contents, makes the reports that reports::weird and reports::warning carry.
//
// It keeps no state between records, so any number of threads may convert at the same time, each
// with its own builder. It takes no lock and allocates nothing beyond the builder's own memory,
// one list of pair offsets for a record that goes out as key/value pairs, and one text for a
// recipient list of more than a kilobyte.
//
// No record is refused. What a record lacks stays at the schema's default; a value that is unset,
// or of another kind than its column's name suggests, reads as the empty string, 0 or an empty
// list. The kinds are: texts (string, enum, file, func), integers (bool, int, count, counter,
// port), reals (time, interval, double), addresses, lists (set, vector); within a kind any type
// will do.
#pragma once

#include <cstddef>
#include <string>

#include <flatbuffers/flatbuffers.h>

namespace threading {
struct Field;
struct Value;
}  // namespace threading

namespace logging {
namespace writer {

/// The size from which on a message takes no more text. FlatBuffers ends at 2 GiB; the rest is
/// room for the tables and vectors around the texts.
constexpr std::size_t kMaxTextBytes = 0x60000000;

/// What a fresh builder for one record is made with.
constexpr std::size_t kInitialBufferBytes = 1024;

/// Builds the NetworkEvent of one record in `builder`, which must be fresh, and finishes it: its
/// GetSize() and GetBufferPointer() are the message.
///
/// `fields` and `vals` have `num_fields` entries each; of a field only the name is read. With
/// `num_fields` of 0 or less neither array is looked at. Nothing of the record is kept.
///
/// A text is cut where the message would grow beyond `max_text_bytes`, and key/value pairs that
/// would begin there are left out; so no record, however large, can break the format's limit.
/// Throws nothing but what the builder's allocator does (std::bad_alloc).
void convert_record(flatbuffers::FlatBufferBuilder& builder, const std::string& agent_id,
                    int num_fields, const threading::Field* const* fields, threading::Value** vals,
                    std::size_t max_text_bytes = kMaxTextBytes);

}  // namespace writer
}  // namespace logging
