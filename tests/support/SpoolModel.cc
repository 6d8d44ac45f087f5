#include "SpoolModel.h"

namespace test {

namespace {

const char kHead[] = "queue.dat";

std::string older(std::int64_t number) {
  return number == 0 ? kHead : std::string(kHead) + "." + std::to_string(number);
}

// A file reads as if endless zero bytes followed it.
std::uint32_t number_at(const std::string& bytes, std::size_t offset, int width) {
  std::uint32_t value = 0;
  for (int i = width - 1; i >= 0; --i) {
    const std::size_t at = offset + static_cast<std::size_t>(i);
    value = value * 256 + (at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0);
  }
  return value;
}

std::string little_endian(std::uint32_t value, int width) {
  std::string bytes;
  for (; width > 0; --width, value /= 256)
    bytes.push_back(static_cast<char>(value % 256));
  return bytes;
}

// Writing past the end fills the gap with zero bytes.
void put(std::string* file, std::size_t offset, const std::string& bytes) {
  if (file->size() < offset + bytes.size())
    file->resize(offset + bytes.size(), '\0');
  file->replace(offset, bytes.size(), bytes);
}

std::int32_t to_int32(std::int64_t value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}

void rename(SpoolModel::Files* files, const std::string& from, const std::string& to) {
  auto found = files->find(from);
  if (found == files->end())
    return;
  (*files)[to] = std::move(found->second);
  files->erase(from);
}

}  // namespace

void SpoolModel::Start() {
  warnings.clear();
  head_records = head_bytes = total_bytes = 0;
  top_length = 0;
  open_ = false;
  top_known_ = false;
  chunk_limit_ = 10485760;
  file_count = 0;
  while (files.count(older(file_count))) {
    const std::string name = older(file_count);
    const std::string& file = files[name];
    if (file.size() < 12) {
      warnings.push_back({name, ""});
    } else if (file.compare(0, 4, "ZMQF") != 0) {
      warnings.push_back({name, ", invalid signature"});
    } else {
      if (file_count == 0) {
        head_records = to_int32(number_at(file, 8, 4));
        head_bytes = to_int32(std::int64_t{number_at(file, 4, 4)} - 12);
      }
      total_bytes = to_int32(std::int64_t{total_bytes} + number_at(file, 4, 4));
    }
    ++file_count;
  }
}

void SpoolModel::Stop() {
  Close();
}

void SpoolModel::Crash() {
  open_ = false;
}

bool SpoolModel::IsEmpty() const {
  return head_records == 0 && file_count < 2;
}

// Records that the head's header promises. A count that the file has no room for, at 4 bytes a
// record, is replaced by the number of records that begin inside the file.
std::uint64_t SpoolModel::CountOnDisk() {
  const std::string& file = files[kHead];
  const std::uint64_t promised = number_at(file, 8, 4);
  if (file.size() >= 12 && promised <= (file.size() - 12) / 4)
    return promised;
  std::uint64_t found = 0;
  for (std::size_t at = 12; at + 4 <= file.size(); at += 4 + number_at(file, at, 2))
    ++found;
  return found;
}

// Offset of record number `record`, counted from 0.
std::size_t SpoolModel::Find(std::uint64_t record) {
  const std::string& file = files[kHead];
  std::size_t at = 12;
  for (; record > 0; --record)
    at += 4 + number_at(file, at, 2);
  return at;
}

void SpoolModel::Open() {
  if (open_)
    return;
  open_ = true;
  if (!files.count(kHead)) {
    files[kHead] = "ZMQF" + std::string(8, '\0');
    head_records = head_bytes = 0;
    top_length = 0;
    top_ = 12;
    top_known_ = false;
    return;
  }
  const std::uint64_t count = CountOnDisk();
  top_ = Find(count);
  if (count > 0)
    top_length = static_cast<std::uint16_t>(number_at(files[kHead], Find(count - 1), 2));
  head_records = to_int32(static_cast<std::int64_t>(count));
  head_bytes = to_int32(number_at(files[kHead], 4, 4));
  top_known_ = true;
}

void SpoolModel::Close() {
  if (!open_)
    return;
  open_ = false;
  put(&files[kHead], 0,
      "ZMQF" + little_endian(static_cast<std::uint32_t>(head_bytes) + 12, 4) +
          little_endian(static_cast<std::uint32_t>(head_records), 4));
  if (head_records == 0)
    files.erase(kHead);
}

void SpoolModel::Store(const std::string& payload) {
  Open();
  const auto length = static_cast<std::uint32_t>(payload.size());
  const std::string record = little_endian(length, 2) + little_endian(top_length, 2) + payload;
  put(&files[kHead], top_, record);
  top_ += record.size();
  head_records = to_int32(std::int64_t{head_records} + 1);
  head_bytes = to_int32(std::int64_t{head_bytes} + length + 4);
  total_bytes = to_int32(std::int64_t{total_bytes} + length + 4);
  top_length = static_cast<std::uint16_t>(length);
  top_known_ = true;
  if (head_bytes > chunk_limit_)
    Roll();
}

void SpoolModel::Roll() {
  Close();
  if (file_count > 0) {
    for (std::int64_t k = file_count; k >= 1; --k)
      rename(&files, older(k - 1), older(k));
  }
  ++file_count;
}

void SpoolModel::DropHead() {
  Close();
  files.erase(kHead);
  for (std::int64_t k = 0; k + 1 < file_count; ++k)
    rename(&files, older(k + 1), older(k));
  --file_count;
}

// The payload of the record at `start`; marks it as taken and makes its place the top.
std::string SpoolModel::TakeAt(std::size_t start) {
  std::string& file = files[kHead];
  const std::uint32_t length = number_at(file, start, 2);
  std::string payload;
  for (std::uint32_t i = 0; i < length; ++i)
    payload.push_back(static_cast<char>(number_at(file, start + 4 + i, 1)));
  top_length = static_cast<std::uint16_t>(number_at(file, start + 2, 2));
  put(&file, start, std::string(2, '\0'));
  top_ = start;
  return payload;
}

std::optional<std::string> SpoolModel::Get() {
  Open();
  if (head_records <= 0) {
    DropHead();
    Open();
    if (head_records <= 0)
      return std::nullopt;
  }
  std::optional<std::string> payload;
  if (top_known_ && top_length != 0) {
    // No step back from the top leads into the file's header.
    const std::size_t step = std::size_t{4} + top_length;
    payload = TakeAt(top_ >= 12 + step ? top_ - step : top_);
  } else if (const std::uint64_t count = CountOnDisk()) {
    payload = TakeAt(Find(count - 1));
  } else {
    top_ = 12;
    put(&files[kHead], 12, std::string(2, '\0'));
  }
  const auto taken = static_cast<std::int64_t>(payload ? payload->size() : 0) + 4;
  head_records = to_int32(std::int64_t{head_records} - 1);
  head_bytes = to_int32(head_bytes - taken);
  total_bytes = to_int32(total_bytes - taken);
  return payload;
}

}  // namespace test
