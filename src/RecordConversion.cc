#include "RecordConversion.h"

#include <string.h>
#include <sys/time.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "aggregator_generated.h"

#include "Reports.h"

#include "threading/SerialTypes.h"
#include "util.h"

namespace logging {
namespace writer {
namespace {

using flatbuffers::FlatBufferBuilder;
using flatbuffers::Offset;
using flatbuffers::uoffset_t;
using flatbuffers::voffset_t;

// ---- the mapping: record columns to schema fields ----

/// How a record value becomes a schema field.
enum Conversion : std::uint8_t {
  kText,          // the bytes as they are
  kJoined,        // a list's texts in element order, "," between them
  kCount16,       // low 16 bits
  kCount32,       // low 32 bits
  kCount64,       // all 64 bits
  kPort,          // low 16 bits
  kFlag,          // 1 if not zero, else 0
  kReal,          // the double as it is
  kMilliseconds,  // seconds x 1000, truncated
  kTransport,     // tcp, udp, icmp in any case; anything else is unknown
  kAddress,       // the bytes of an address in network order
};

struct Column {
  const char* name;
  voffset_t field;  // the schema field, by its vtable slot
  Conversion conversion;
};

using General = Dravenholt::GeneralData;
const Column kGeneralColumns[] = {
    {"id.orig_h", General::VT_ORIG_H, kAddress},
    {"id.orig_p", General::VT_ORIG_P, kPort},
    {"id.resp_h", General::VT_RESP_H, kAddress},
    {"id.resp_p", General::VT_RESP_P, kPort},
    {"proto", General::VT_PROTO, kTransport},
    {"duration", General::VT_DURATION, kMilliseconds},
    {"orig_bytes", General::VT_ORIG_BYTES, kCount32},
    {"resp_bytes", General::VT_RESP_BYTES, kCount32},
    {"conn_state", General::VT_CONN_STATE, kText},
    {"local_orig", General::VT_LOCAL_ORIG, kFlag},
    {"local_resp", General::VT_LOCAL_RESP, kFlag},
    {"missed_bytes", General::VT_MISSED_BYTES, kCount32},
    {"orig_pkts", General::VT_ORIG_PKTS, kCount32},
    {"orig_ip_bytes", General::VT_ORIG_IP_BYTES, kCount32},
    {"resp_pkts", General::VT_RESP_PKTS, kCount32},
    {"resp_ip_bytes", General::VT_RESP_IP_BYTES, kCount32},
    {"username", General::VT_USERNAME, kText},
    {"process", General::VT_PROCESS, kText},
    {"service", General::VT_SERVICE, kText},
};

using Ftp = Dravenholt::FtpData;
const Column kFtpColumns[] = {
    {"ftp.user", Ftp::VT_USER, kText},
    {"ftp.command", Ftp::VT_COMMAND, kText},
    {"ftp.arg", Ftp::VT_ARG, kText},
    {"ftp.reply_code", Ftp::VT_REPLY_CODE, kCount16},
    {"ftp.file_size", Ftp::VT_FILE_SIZE, kCount64},
};

using Http = Dravenholt::HttpData;
const Column kHttpColumns[] = {
    {"http.user", Http::VT_USER, kText},
    {"http.method", Http::VT_METHOD, kText},
    {"http.host", Http::VT_HOST, kText},
    {"http.uri", Http::VT_URI, kText},
    {"http.status_code", Http::VT_STATUS_CODE, kCount16},
    {"http.request_body_len", Http::VT_REQUEST_BODY_LEN, kCount64},
    {"http.response_body_len", Http::VT_RESPONSE_BODY_LEN, kCount64},
};

using Ldap = Dravenholt::LdapData;
const Column kLdapColumns[] = {
    {"ldap.user", Ldap::VT_USER, kText},
    {"ldap.message", Ldap::VT_MESSAGE, kText},
    {"ldap.base", Ldap::VT_BASE, kText},
    {"ldap.resultCode", Ldap::VT_RESULT_CODE, kCount16},
};

using Smb = Dravenholt::SmbData;
const Column kSmbColumns[] = {
    {"smb.user", Smb::VT_USER, kText},
    {"smb.share", Smb::VT_SHARE, kText},
    {"smb.filename", Smb::VT_FILENAME, kText},
    {"smb.action", Smb::VT_ACTION, kText},
    {"smb.filesize", Smb::VT_FILESIZE, kCount64},
};

using Smtp = Dravenholt::SmtpData;
const Column kSmtpColumns[] = {
    {"smtp.from", Smtp::VT_FROM, kText},
    {"smtp.to", Smtp::VT_TO, kJoined},
    {"smtp.subject", Smtp::VT_SUBJECT, kText},
    {"smtp.reqSize", Smtp::VT_REQ_SIZE, kCount64},
};

using Tds = Dravenholt::TdsData;
const Column kTdsColumns[] = {
    {"tds.user", Tds::VT_USER, kText},
    {"tds.database", Tds::VT_DATABASE, kText},
    {"tds.app", Tds::VT_APP, kText},
    {"tds.sql", Tds::VT_SQL, kText},
};

using DceRpc = Dravenholt::DceRpcData;
const Column kDceRpcColumns[] = {
    {"dce.request_type", DceRpc::VT_REQUEST_TYPE, kText},
    {"dce.interface_uuid", DceRpc::VT_INTERFACE_UUID, kText},
    {"dce.interface_name", DceRpc::VT_INTERFACE_NAME, kText},
    {"dce.opnum", DceRpc::VT_OPNUM, kCount32},
    {"dce.method", DceRpc::VT_METHOD, kText},
    {"dce.arguments", DceRpc::VT_ARGUMENTS, kText},
    {"dce.raw_args", DceRpc::VT_RAW_ARGS, kText},
};

using Tn5250 = Dravenholt::Tn5250Data;
const Column kTn5250Columns[] = {
    {"tn5250.protocol", Tn5250::VT_PROTOCOL, kText},
    {"tn5250.details", Tn5250::VT_DETAILS, kText},
};

using Stats = Dravenholt::SystemStatsData;
const Column kStatsColumns[] = {
    {"cpu_usage", Stats::VT_CPU_USAGE, kReal},
    {"priority", Stats::VT_PRIORITY, kCount32},
    {"ph_mem_total", Stats::VT_PH_MEM_TOTAL, kCount32},
    {"ph_mem_used", Stats::VT_PH_MEM_USED, kCount32},
    {"virt_mem_total", Stats::VT_VIRT_MEM_TOTAL, kCount32},
    {"virt_mem_used", Stats::VT_VIRT_MEM_USED, kCount32},
    {"hdd_volume", Stats::VT_HDD_VOLUME, kReal},
    {"hdd_used", Stats::VT_HDD_USED, kReal},
    {"hdd_avail", Stats::VT_HDD_AVAIL, kReal},
};

/// The extra keys (in any case) that an inbound HTTP record is made of; all are texts.
const Column kInboundHttpKeys[] = {
    {"verb", Http::VT_METHOD, kText},
    {"url", Http::VT_URI, kText},
    {"user", Http::VT_USER, kText},
};

/// The values of "ptype", in the order in which they are tried.
struct Protocol {
  const char* name;
  std::size_t length;
  Dravenholt::Data type;
  bool inbound;
};
const Protocol kProtocols[] = {
    {"ftp", 3, Dravenholt::Data_FtpData, false},
    {"http", 4, Dravenholt::Data_HttpData, false},
    {"http-in", 7, Dravenholt::Data_HttpData, true},
    {"ldap", 4, Dravenholt::Data_LdapData, false},
    {"smb", 3, Dravenholt::Data_SmbData, false},
    {"smtp", 4, Dravenholt::Data_SmtpData, false},
    {"tds", 3, Dravenholt::Data_TdsData, false},
    {"tn5250", 6, Dravenholt::Data_Tn5250Data, false},
    {"dce-rpc", 7, Dravenholt::Data_DceRpcData, false},
    {"general", 7, Dravenholt::Data_GeneralData, false},
};
const Protocol kGenericProtocol = {"", 0, Dravenholt::Data_GenericProtocolData, false};

/// The columns that the envelope is made of, whatever the protocol; `field` is an EnvelopeField.
enum EnvelopeField : voffset_t { kPtype, kCpuUsage, kTs, kUid, kExtraFields, kExtraVals };
const Column kEnvelopeColumns[] = {
    {"ptype", kPtype, kText},
    {"cpu_usage", kCpuUsage, kReal},
    {"ts", kTs, kReal},
    {"uid", kUid, kText},
    {"extra_fields", kExtraFields, kJoined},
    {"extra_vals", kExtraVals, kJoined},
};

template <typename Word>
std::uint64_t word_at(const char* text) {
  Word word;
  memcpy(&word, text, sizeof word);
  return word;
}

/// A column name in a form that compares fast: names are short, and calls of memcmp would cost
/// more than all the rest of a look-up.
struct NameKey {
  NameKey() : length(0), head(0), tail(0) {}

  explicit NameKey(const char* name) : length(strlen(name)), head(0), tail(0) {
    // Head and tail overlap in a name that is no multiple of its words.
    if (length >= 8) {
      head = word_at<std::uint64_t>(name);
      tail = word_at<std::uint64_t>(name + length - 8);
    } else if (length >= 4) {
      head = word_at<std::uint32_t>(name);
      tail = word_at<std::uint32_t>(name + length - 4);
    } else if (length > 0) {
      head = word_at<std::uint8_t>(name) << 8 | word_at<std::uint8_t>(name + length / 2);
      tail = word_at<std::uint8_t>(name + length - 1);
    }
  }

  std::size_t length;
  std::uint64_t head;  // the first characters: eight, or four, or two
  std::uint64_t tail;  // the last ones
};

/// The columns of one payload, to be found by name: a small hash table, built once, when the
/// plug-in is loaded. Names are told apart by their length and by words, and only what is then left
/// between the first and the last eight characters is compared by itself.
class ColumnTable {
 public:
  template <std::size_t n>
  explicit ColumnTable(const Column (&columns)[n]) : initials_(), first_(), count_(0) {
    static_assert(n <= kMaxColumns, "more columns than a ColumnTable holds");
    for (std::size_t slot = 0; slot < kSlots; slot++) {
      first_[slot] = count_;
      for (const Column& column : columns)
        if (slot_of(NameKey(column.name)) == slot)
          entries_[count_++] = {column, NameKey(column.name)};
    }
    first_[kSlots] = count_;
    for (const Column& column : columns)
      initials_[static_cast<unsigned char>(column.name[0])] = true;
  }

  /// Null when no column has that name.
  const Column* find(const char* name) const {
    if (!initials_[static_cast<unsigned char>(name[0])])
      return nullptr;
    const NameKey key(name);
    const std::size_t slot = slot_of(key);
    const Entry* end = entries_ + first_[slot + 1];
    for (const Entry* entry = entries_ + first_[slot]; entry != end; entry++)
      if (entry->key.head == key.head && entry->key.tail == key.tail &&
          entry->key.length == key.length &&
          (key.length <= 16 || memcmp(entry->column.name + 8, name + 8, key.length - 16) == 0))
        return &entry->column;
    return nullptr;
  }

 private:
  struct Entry {
    Column column;
    NameKey key;
  };

  static const std::size_t kMaxColumns = 24;
  static const std::size_t kSlots = 64;

  static std::size_t slot_of(const NameKey& key) {
    return (key.head + key.tail * 3 + key.length) * 0x9e3779b97f4a7c15ULL >> 58;
  }

  bool initials_[256];              // by first character: whether any column begins with it
  std::uint8_t first_[kSlots + 1];  // by slot: its entries are there up to those of the next slot
  std::uint8_t count_;
  Entry entries_[kMaxColumns];
};

const ColumnTable kEnvelope(kEnvelopeColumns);
const ColumnTable kGeneral(kGeneralColumns);
const ColumnTable kFtp(kFtpColumns);
const ColumnTable kHttp(kHttpColumns);
const ColumnTable kLdap(kLdapColumns);
const ColumnTable kSmb(kSmbColumns);
const ColumnTable kSmtp(kSmtpColumns);
const ColumnTable kTds(kTdsColumns);
const ColumnTable kDceRpc(kDceRpcColumns);
const ColumnTable kTn5250(kTn5250Columns);
const ColumnTable kStats(kStatsColumns);

// ---- reading host values: the type decides which member may be read ----

struct Text {
  const char* data;
  std::size_t length;
};

bool is_set(const threading::Value* value) {
  return value && value->present;
}

Text text_of(const threading::Value* value) {
  const Text none = {"", 0};
  if (!is_set(value))
    return none;
  switch (value->type) {
    case TYPE_STRING:
    case TYPE_ENUM:
    case TYPE_FILE:
    case TYPE_FUNC:
      break;
    default:
      return none;
  }
  if (!value->val.string_val.data || value->val.string_val.length <= 0)
    return none;
  return {value->val.string_val.data, static_cast<std::size_t>(value->val.string_val.length)};
}

std::uint64_t integer_of(const threading::Value* value) {
  if (!is_set(value))
    return 0;
  switch (value->type) {
    case TYPE_COUNT:
    case TYPE_COUNTER:
      return value->val.uint_val;
    case TYPE_BOOL:
    case TYPE_INT:
      return static_cast<std::uint64_t>(value->val.int_val);
    case TYPE_PORT:
      return value->val.port_val.port;
    default:
      return 0;
  }
}

double real_of(const threading::Value* value) {
  if (!is_set(value))
    return 0.0;
  switch (value->type) {
    case TYPE_TIME:
    case TYPE_INTERVAL:
    case TYPE_DOUBLE:
      return value->val.double_val;
    default:
      return 0.0;
  }
}

struct Elements {
  threading::Value** vals;
  std::uint64_t size;
};

Elements elements_of(const threading::Value* value) {
  const Elements none = {nullptr, 0};
  if (!is_set(value))
    return none;
  if (value->type != TYPE_TABLE && value->type != TYPE_VECTOR)
    return none;
  const threading::Value::set_t& list =
      value->type == TYPE_TABLE ? value->val.set_val : value->val.vector_val;
  if (!list.vals || list.size <= 0)
    return none;
  return {list.vals, static_cast<std::uint64_t>(list.size)};
}

/// What an unset address reads as: the host zeroes unset values, and family 0 is IPv4.
const threading::Value::addr_t kZeroAddress = threading::Value::addr_t();

/// Null for a value that is no address.
const threading::Value::addr_t* address_of(const threading::Value* value) {
  if (!is_set(value))
    return &kZeroAddress;
  return value->type == TYPE_ADDR ? &value->val.addr_val : nullptr;
}

/// As a number: a damaged one is no value that the enumeration may hold.
int family_of(const threading::Value::addr_t& address) {
  static_assert(sizeof(address.family) == sizeof(int), "the enumeration is not an int");
  int family;
  memcpy(&family, &address.family, sizeof family);
  return family;
}

bool equals_ignoring_case(const Text& text, const char* name, std::size_t length) {
  return text.length == length && strcasecmp_n(static_cast<int>(length), text.data, name) == 0;
}

/// The low 64 bits of the truncated number, in two's complement; 0 for what is no finite number.
/// Spelled out because the language leaves the conversion undefined outside of [0, 2^64).
std::uint64_t truncated(double number) {
  const double two_to_64 = 18446744073709551616.0;
  if (number >= 0.0 && number < two_to_64)
    return static_cast<std::uint64_t>(number);
  if (!std::isfinite(number))
    return 0;
  const double magnitude = std::fmod(std::trunc(std::fabs(number)), two_to_64);
  const std::uint64_t low_bits = static_cast<std::uint64_t>(magnitude);
  return number < 0.0 ? 0 - low_bits : low_bits;
}

Dravenholt::Transport transport_of(const threading::Value* value) {
  const Text text = text_of(value);
  if (equals_ignoring_case(text, "tcp", 3))
    return Dravenholt::Transport_tcp;
  if (equals_ignoring_case(text, "udp", 3))
    return Dravenholt::Transport_udp;
  if (equals_ignoring_case(text, "icmp", 4))
    return Dravenholt::Transport_icmp;
  return Dravenholt::Transport_unknown;
}

// ---- building ----

/// Makes the texts of one message and keeps them within the format's limit.
class TextBuilder {
 public:
  TextBuilder(FlatBufferBuilder* builder, std::size_t max_bytes)
      : builder_(builder), max_bytes_(max_bytes) {}

  FlatBufferBuilder& builder() const { return *builder_; }

  std::size_t room() const {
    const std::size_t used = builder_->GetSize();
    return used < max_bytes_ ? max_bytes_ - used : 0;
  }

  uoffset_t create(const Text& text) const {
    const std::size_t most = room();
    return builder_->CreateString(text.data, text.length < most ? text.length : most).o;
  }

  uoffset_t create_joined(const Elements& elements) const {
    const std::size_t most = room();
    const std::size_t length = joined_length(elements, most);
    char small[1024];
    if (length <= sizeof(small))
      return create(join(elements, small, length));
    std::string large(length, '\0');
    return create(join(elements, &large[0], length));
  }

 private:
  static std::size_t joined_length(const Elements& elements, std::size_t most) {
    std::size_t length = 0;
    for (std::uint64_t i = 0; i < elements.size && length < most; i++)
      length += (i > 0 ? 1 : 0) + text_of(elements.vals[i]).length;
    return length < most ? length : most;
  }

  /// The first `length` bytes of the joined text, in `buffer`.
  static Text join(const Elements& elements, char* buffer, std::size_t length) {
    std::size_t used = 0;
    for (std::uint64_t i = 0; used < length; i++) {
      if (i > 0)
        buffer[used++] = ',';
      const Text text = text_of(elements.vals[i]);
      const std::size_t part = text.length < length - used ? text.length : length - used;
      memcpy(buffer + used, text.data, part);
      used += part;
    }
    return {buffer, length};
  }

  FlatBufferBuilder* const builder_;
  const std::size_t max_bytes_;
};

struct Record {
  int num_fields;
  const threading::Field* const* fields;
  threading::Value** vals;
};

/// The schema fields of one payload, each at its default until a column of the record sets it.
/// A column that occurs twice is converted twice, and its last occurrence counts.
class Payload {
 public:
  explicit Payload(const TextBuilder& texts) : texts_(texts) {}

  Payload(const TextBuilder& texts, const ColumnTable& columns, const Record& record)
      : texts_(texts) {
    for (int i = 0; i < record.num_fields; i++)
      if (const Column* column = columns.find(record.fields[i]->name))
        set(*column, record.vals[i]);
  }

  void set(const Column& column, const threading::Value* value) {
    std::uint64_t& number = numbers_[index(column.field)];
    switch (column.conversion) {
      case kText:
        number = texts_.create(text_of(value));
        break;
      case kJoined:
        number = texts_.create_joined(elements_of(value));
        break;
      case kCount16:
      case kPort:
        number = static_cast<std::uint16_t>(integer_of(value));
        break;
      case kCount32:
        number = static_cast<std::uint32_t>(integer_of(value));
        break;
      case kCount64:
        number = integer_of(value);
        break;
      case kFlag:
        number = integer_of(value) != 0 ? 1 : 0;
        break;
      case kReal:
        set_real(&number, real_of(value));
        break;
      case kMilliseconds:
        number = truncated(real_of(value) * 1000.0);
        break;
      case kTransport:
        number = static_cast<std::uint64_t>(transport_of(value));
        break;
      case kAddress:
        set_address(column.field, value);
        break;
    }
  }

  Offset<flatbuffers::String> text(voffset_t field) const {
    return static_cast<uoffset_t>(numbers_[index(field)]);
  }
  std::uint16_t u16(voffset_t field) const {
    return static_cast<std::uint16_t>(numbers_[index(field)]);
  }
  std::uint32_t u32(voffset_t field) const {
    return static_cast<std::uint32_t>(numbers_[index(field)]);
  }
  std::int32_t i32(voffset_t field) const { return static_cast<std::int32_t>(u32(field)); }
  std::uint64_t u64(voffset_t field) const { return numbers_[index(field)]; }
  std::int8_t i8(voffset_t field) const { return static_cast<std::int8_t>(numbers_[index(field)]); }
  double real(voffset_t field) const {
    double result;
    memcpy(&result, &numbers_[index(field)], sizeof(result));
    return result;
  }

  /// Creates the vector of an address column; empty when there is no address.
  Offset<flatbuffers::Vector<std::int8_t>> address(voffset_t field) const {
    const threading::Value::addr_t* address =
        field == General::VT_ORIG_H ? orig_address_ : resp_address_;
    if (!address)
      return texts_.builder().CreateVector(static_cast<const std::int8_t*>(nullptr), 0);
    return texts_.builder().CreateVector(
        reinterpret_cast<const std::int8_t*>(&address->in),
        family_of(*address) == IPv4 ? sizeof(address->in.in4) : sizeof(address->in.in6));
  }

 private:
  static const std::size_t kMaxFields = 22;

  static std::size_t index(voffset_t field) { return (field - 4u) / 2u; }

  static void set_real(std::uint64_t* number, double value) {
    memcpy(number, &value, sizeof(value));
  }

  void set_address(voffset_t field, const threading::Value* value) {
    const bool orig = field == General::VT_ORIG_H;
    const threading::Value::addr_t* address = address_of(value);
    if (address && family_of(*address) != IPv4 && family_of(*address) != IPv6) {
      reports::weird(orig ? "Unknown addr family in orig_h!" : "Unknown addr family in resp_h!");
      address = nullptr;
    }
    (orig ? orig_address_ : resp_address_) = address;
  }

  const TextBuilder& texts_;
  std::uint64_t numbers_[kMaxFields] = {};
  const threading::Value::addr_t* orig_address_ = nullptr;
  const threading::Value::addr_t* resp_address_ = nullptr;
};

Offset<void> create_general(const TextBuilder& texts, const Record& record) {
  const Payload p(texts, kGeneral, record);
  FlatBufferBuilder& builder = texts.builder();
  const auto orig_h = p.address(General::VT_ORIG_H);
  const auto orig_name = builder.CreateString("", 0);
  const auto resp_h = p.address(General::VT_RESP_H);
  const auto resp_name = builder.CreateString("", 0);
  const auto history = builder.CreateString("", 0);
  return Dravenholt::CreateGeneralData(
             builder, orig_h, orig_name, p.u16(General::VT_ORIG_P), resp_h, resp_name,
             p.u16(General::VT_RESP_P), static_cast<Dravenholt::Transport>(p.i8(General::VT_PROTO)),
             p.u64(General::VT_DURATION), p.u32(General::VT_ORIG_BYTES),
             p.u32(General::VT_RESP_BYTES), p.text(General::VT_CONN_STATE),
             p.i8(General::VT_LOCAL_ORIG), p.i8(General::VT_LOCAL_RESP),
             p.u32(General::VT_MISSED_BYTES), history, p.u32(General::VT_ORIG_PKTS),
             p.u32(General::VT_ORIG_IP_BYTES), p.u32(General::VT_RESP_PKTS),
             p.u32(General::VT_RESP_IP_BYTES), p.text(General::VT_USERNAME),
             p.text(General::VT_PROCESS), p.text(General::VT_SERVICE))
      .Union();
}

Offset<void> create_ftp(const TextBuilder& texts, const Record& record) {
  const Payload p(texts, kFtp, record);
  return Dravenholt::CreateFtpData(texts.builder(), p.text(Ftp::VT_USER), p.text(Ftp::VT_COMMAND),
                                   p.u16(Ftp::VT_REPLY_CODE), p.text(Ftp::VT_ARG),
                                   p.u64(Ftp::VT_FILE_SIZE))
      .Union();
}

Offset<void> create_http(const TextBuilder& texts, const Payload& p) {
  return Dravenholt::CreateHttpData(texts.builder(), p.text(Http::VT_USER), p.text(Http::VT_METHOD),
                                    p.text(Http::VT_HOST), p.text(Http::VT_URI),
                                    p.u16(Http::VT_STATUS_CODE), p.u64(Http::VT_REQUEST_BODY_LEN),
                                    p.u64(Http::VT_RESPONSE_BODY_LEN))
      .Union();
}

/// Inbound HTTP records carry their fields as key/value pairs; their columns are not read at all.
Offset<void> create_inbound_http(const TextBuilder& texts, const Elements& keys,
                                 const Elements& vals) {
  Payload payload(texts);
  for (std::uint64_t i = 0; i < keys.size && i < vals.size; i++) {
    const Text key = text_of(keys.vals[i]);
    for (const Column& column : kInboundHttpKeys) {
      if (equals_ignoring_case(key, column.name, strlen(column.name))) {
        payload.set(column, vals.vals[i]);
        break;
      }
    }
  }
  return create_http(texts, payload);
}

Offset<void> create_ldap(const TextBuilder& texts, const Record& record) {
  const Payload p(texts, kLdap, record);
  return Dravenholt::CreateLdapData(texts.builder(), p.text(Ldap::VT_USER),
                                    p.text(Ldap::VT_MESSAGE), p.u16(Ldap::VT_RESULT_CODE),
                                    p.text(Ldap::VT_BASE))
      .Union();
}

Offset<void> create_smb(const TextBuilder& texts, const Record& record) {
  const Payload p(texts, kSmb, record);
  return Dravenholt::CreateSmbData(texts.builder(), p.text(Smb::VT_USER), p.text(Smb::VT_SHARE),
                                   p.text(Smb::VT_FILENAME), p.text(Smb::VT_ACTION),
                                   p.u64(Smb::VT_FILESIZE))
      .Union();
}

Offset<void> create_smtp(const TextBuilder& texts, const Record& record) {
  const Payload p(texts, kSmtp, record);
  return Dravenholt::CreateSmtpData(texts.builder(), p.text(Smtp::VT_FROM), p.text(Smtp::VT_TO),
                                    p.text(Smtp::VT_SUBJECT), p.u64(Smtp::VT_REQ_SIZE))
      .Union();
}

Offset<void> create_tds(const TextBuilder& texts, const Record& record) {
  const Payload p(texts, kTds, record);
  return Dravenholt::CreateTdsData(texts.builder(), p.text(Tds::VT_USER), p.text(Tds::VT_DATABASE),
                                   p.text(Tds::VT_APP), p.text(Tds::VT_SQL))
      .Union();
}

Offset<void> create_dce_rpc(const TextBuilder& texts, const Record& record) {
  const Payload p(texts, kDceRpc, record);
  return Dravenholt::CreateDceRpcData(
             texts.builder(), p.text(DceRpc::VT_REQUEST_TYPE), p.text(DceRpc::VT_INTERFACE_UUID),
             p.text(DceRpc::VT_INTERFACE_NAME), p.i32(DceRpc::VT_OPNUM), p.text(DceRpc::VT_METHOD),
             p.text(DceRpc::VT_ARGUMENTS), p.text(DceRpc::VT_RAW_ARGS))
      .Union();
}

Offset<void> create_tn5250(const TextBuilder& texts, const Record& record) {
  const Payload p(texts, kTn5250, record);
  return Dravenholt::CreateTn5250Data(texts.builder(), p.text(Tn5250::VT_PROTOCOL),
                                      p.text(Tn5250::VT_DETAILS))
      .Union();
}

Offset<void> create_stats(const TextBuilder& texts, const Record& record) {
  const Payload p(texts, kStats, record);
  return Dravenholt::CreateSystemStatsData(
             texts.builder(), p.real(Stats::VT_CPU_USAGE), p.i32(Stats::VT_PRIORITY),
             p.i32(Stats::VT_PH_MEM_TOTAL), p.i32(Stats::VT_PH_MEM_USED),
             p.i32(Stats::VT_VIRT_MEM_TOTAL), p.i32(Stats::VT_VIRT_MEM_USED),
             p.real(Stats::VT_HDD_VOLUME), p.real(Stats::VT_HDD_USED), p.real(Stats::VT_HDD_AVAIL))
      .Union();
}

Offset<void> create_generic(const TextBuilder& texts, Offset<flatbuffers::String> ptype,
                            const Elements& keys, const Elements& vals) {
  FlatBufferBuilder& builder = texts.builder();
  std::vector<Offset<Dravenholt::MapEntry>> pairs;
  for (std::uint64_t i = 0; i < keys.size && i < vals.size && texts.room() > 0; i++) {
    const Offset<flatbuffers::String> key = texts.create(text_of(keys.vals[i]));
    const Offset<flatbuffers::String> value = texts.create(text_of(vals.vals[i]));
    pairs.push_back(Dravenholt::CreateMapEntry(builder, key, value));
  }
  const auto fields = builder.CreateVector(pairs);
  return Dravenholt::CreateGenericProtocolData(builder, ptype, fields).Union();
}

/// What the first scan of a record finds; later columns overwrite what earlier ones set.
class Envelope {
 public:
  explicit Envelope(const TextBuilder& texts) : texts_(texts) {}

  void scan(const Record& record) {
    for (int i = 0; i < record.num_fields; i++)
      if (const Column* column = kEnvelope.find(record.fields[i]->name))
        set(static_cast<EnvelopeField>(column->field), record.vals[i]);
  }

  Offset<void> create_payload(const Record& record) {
    switch (type) {
      case Dravenholt::Data_GeneralData:
        return create_general(texts_, record);
      case Dravenholt::Data_FtpData:
        return create_ftp(texts_, record);
      case Dravenholt::Data_HttpData:
        if (inbound_)
          return create_inbound_http(texts_, elements_of(extra_fields_), elements_of(extra_vals_));
        return create_http(texts_, Payload(texts_, kHttp, record));
      case Dravenholt::Data_LdapData:
        return create_ldap(texts_, record);
      case Dravenholt::Data_SmbData:
        return create_smb(texts_, record);
      case Dravenholt::Data_SmtpData:
        return create_smtp(texts_, record);
      case Dravenholt::Data_TdsData:
        return create_tds(texts_, record);
      case Dravenholt::Data_DceRpcData:
        return create_dce_rpc(texts_, record);
      case Dravenholt::Data_Tn5250Data:
        return create_tn5250(texts_, record);
      case Dravenholt::Data_SystemStatsData:
        // A statistics event belongs to no connection, whatever uid its record may have.
        uid = texts_.builder().CreateString("000000000000000000", 18);
        return create_stats(texts_, record);
      default:
        if (!extra_fields_ || !extra_vals_)
          return 0;
        return create_generic(texts_, ptype_, elements_of(extra_fields_), elements_of(extra_vals_));
    }
  }

  Dravenholt::Data type = kGenericProtocol.type;
  double ts = 0.0;
  Offset<flatbuffers::String> uid = 0;

 private:
  void set(EnvelopeField field, const threading::Value* value) {
    switch (field) {
      case kPtype:
        ptype_ = text_or(value, "Empty type!", "Unknown");
        set_protocol(text_of(value));
        break;
      case kCpuUsage:
        type = Dravenholt::Data_SystemStatsData;
        ts = current_time(false);
        break;
      case kTs:
        ts = real_of(value);
        break;
      case kUid:
        uid = text_or(value, "Empty uid!", "unknown");  // lower case, unlike "Unknown": on purpose
        break;
      case kExtraFields:
        extra_fields_ = value;
        break;
      case kExtraVals:
        extra_vals_ = value;
        break;
    }
  }

  Offset<flatbuffers::String> text_or(const threading::Value* value, const char* weird,
                                      const char* instead) {
    if (is_set(value))
      return texts_.create(text_of(value));
    reports::weird(weird);
    return texts_.create({instead, strlen(instead)});
  }

  void set_protocol(const Text& name) {
    const Protocol& protocol = find_protocol(name);
    type = protocol.type;
    inbound_ = protocol.inbound;
  }

  static const Protocol& find_protocol(const Text& name) {
    for (const Protocol& protocol : kProtocols)
      if (equals_ignoring_case(name, protocol.name, protocol.length))
        return protocol;
    reports::warning("Unsupported protocol type %s, using generic format",
                     std::string(name.data, name.length).c_str());
    return kGenericProtocol;
  }

  const TextBuilder& texts_;
  bool inbound_ = false;
  Offset<flatbuffers::String> ptype_ = 0;
  const threading::Value* extra_fields_ = nullptr;
  const threading::Value* extra_vals_ = nullptr;
};

int minutes_west() {
  struct timeval now = {};
  struct timezone zone = {};
  gettimeofday(&now, &zone);
  return zone.tz_minuteswest;
}

}  // namespace

void convert_record(FlatBufferBuilder& builder, const std::string& agent_id, int num_fields,
                    const threading::Field* const* fields, threading::Value** vals,
                    std::size_t max_text_bytes) {
  const TextBuilder texts(&builder, max_text_bytes);
  const Offset<flatbuffers::String> agent = texts.create({agent_id.data(), agent_id.size()});

  Envelope envelope(texts);
  Offset<void> payload = 0;
  if (num_fields > 0) {
    const Record record = {num_fields, fields, vals};
    envelope.scan(record);
    payload = envelope.create_payload(record);
  }

  builder.Finish(Dravenholt::CreateNetworkEvent(builder, envelope.uid, envelope.ts, minutes_west(),
                                                agent, envelope.type, payload));
}

}  // namespace writer
}  // namespace logging
