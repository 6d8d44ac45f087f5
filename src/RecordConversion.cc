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
using String = Offset<flatbuffers::String>;
using threading::Value;

// ---- column names ----

/// Compares the characters `at` up to `end` of a name with those of a literal of `size` bytes.
template <std::size_t size, std::size_t at, std::size_t end>
struct Characters {
  __attribute__((always_inline)) static bool equal(const char* name, const char (&literal)[size]) {
    return name[at] == literal[at] && Characters<size, at + 1, end>::equal(name, literal);
  }
};
template <std::size_t size, std::size_t end>
struct Characters<size, end, end> {
  __attribute__((always_inline)) static bool equal(const char*, const char (&)[size]) {
    return true;
  }
};

/// Whether a column has that name. Every column of every record is asked, so the comparison is
/// written out for the compiler: it compares each character with a constant, which costs less than
/// a call or than finding out the name's length. The comparison ends at the first difference, so
/// nothing behind the name's terminator is read.
template <std::size_t size>
__attribute__((always_inline)) inline bool is(const char* name, const char (&literal)[size]) {
  return Characters<size, 0, size>::equal(name, literal);
}

template <std::size_t size>
__attribute__((always_inline)) inline bool begins(const char* name, const char (&prefix)[size]) {
  return Characters<size, 0, size - 1>::equal(name, prefix);
}

// ---- reading host values: the type decides which member may be read ----

struct Text {
  const char* data;
  std::size_t length;
};

bool is_set(const Value* value) {
  return value && value->present;
}

constexpr std::uint32_t bit(TypeTag type) {
  return std::uint32_t(1) << type;
}
static_assert(NUM_TYPES <= 32, "a set of types has 32 bits");

/// Whether the value is set and of one of the types.
template <std::uint32_t types>
__attribute__((always_inline)) inline bool is_one_of(const Value* value) {
  const std::uint32_t type = is_set(value) ? static_cast<std::uint32_t>(value->type) : 32;
  return type < 32 && (types >> type & 1) != 0;
}

inline Text text_of(const Value* value) {
  const std::uint32_t texts = bit(TYPE_STRING) | bit(TYPE_ENUM) | bit(TYPE_FILE) | bit(TYPE_FUNC);
  const Text none = {"", 0};
  if (!is_one_of<texts>(value) || !value->val.string_val.data || value->val.string_val.length <= 0)
    return none;
  return {value->val.string_val.data, static_cast<std::size_t>(value->val.string_val.length)};
}

inline std::uint64_t integer_of(const Value* value) {
  const std::uint32_t integers =
      bit(TYPE_COUNT) | bit(TYPE_COUNTER) | bit(TYPE_BOOL) | bit(TYPE_INT) | bit(TYPE_PORT);
  if (!is_one_of<integers>(value))
    return 0;
  // int_val, uint_val and port_val.port lie at the same place, so one copy reads any of them.
  static_assert(sizeof(value->val.uint_val) == 8 && sizeof(value->val.int_val) == 8 &&
                    sizeof(value->val.port_val.port) == 8,
                "all integers have 8 bytes");
  std::uint64_t number;
  memcpy(&number, &value->val, sizeof number);
  return number;
}

double real_of(const Value* value) {
  const std::uint32_t reals = bit(TYPE_TIME) | bit(TYPE_INTERVAL) | bit(TYPE_DOUBLE);
  return is_one_of<reals>(value) ? value->val.double_val : 0.0;
}

struct Elements {
  Value** vals;
  std::uint64_t size;
};

Elements elements_of(const Value* value) {
  const Elements none = {nullptr, 0};
  if (!is_set(value))
    return none;
  if (value->type != TYPE_TABLE && value->type != TYPE_VECTOR)
    return none;
  const Value::set_t& list = value->type == TYPE_TABLE ? value->val.set_val : value->val.vector_val;
  if (!list.vals || list.size <= 0)
    return none;
  return {list.vals, static_cast<std::uint64_t>(list.size)};
}

/// What an unset address reads as: the host zeroes unset values, and family 0 is IPv4.
const Value::addr_t kZeroAddress = Value::addr_t();

/// Null for a value that is no address.
const Value::addr_t* address_of(const Value* value) {
  if (!is_set(value))
    return &kZeroAddress;
  return value->type == TYPE_ADDR ? &value->val.addr_val : nullptr;
}

/// As a number, since in a damaged value it may be none of the enumeration.
int family_of(const Value::addr_t& address) {
  static_assert(sizeof(address.family) == sizeof(int), "the enumeration is not an int");
  int family;
  memcpy(&family, &address.family, sizeof family);
  return family;
}

/// Whether the text is `literal`, which must be in lower case and begin with a letter. Most texts
/// differ in their length or first character, and most others are in lower case too.
template <std::size_t size>
bool equals_ignoring_case(const Text& text, const char (&literal)[size]) {
  const std::size_t length = size - 1;
  return text.length == length && (text.data[0] | 0x20) == literal[0] &&
         (memcmp(text.data, literal, length) == 0 ||
          strcasecmp_n(static_cast<int>(length), text.data, literal) == 0);
}

/// The low 64 bits of the truncated number, in two's complement; 0 for what is no finite number.
/// Written out because the language leaves the conversion undefined outside of [0, 2^64).
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

Dravenholt::Transport transport_of(const Value* value) {
  const Text text = text_of(value);
  if (equals_ignoring_case(text, "tcp"))
    return Dravenholt::Transport_tcp;
  if (equals_ignoring_case(text, "udp"))
    return Dravenholt::Transport_udp;
  if (equals_ignoring_case(text, "icmp"))
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

  String create(const Text& text) const {
    const std::size_t most = room();
    return builder_->CreateString(text.data, text.length < most ? text.length : most);
  }

  String create_joined(const Elements& elements) const {
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
  Value** vals;
};

// ---- columns ----

// The type of a payload's field tells how the value of its column is read: see the overloads of
// set(). The following types are for fields whose type in the schema does not tell it.

/// The texts of a list, with commas between them.
struct JoinedTexts : String {};

/// An interval; its value is in seconds.
struct Milliseconds {
  std::uint64_t count;
};

/// Null when there is no address.
struct Address {
  const Value::addr_t* value;
};
struct OrigAddress : Address {};
struct RespAddress : Address {};

void set(const TextBuilder& texts, String* field, const Value* value) {
  *field = texts.create(text_of(value));
}

void set(const TextBuilder& texts, JoinedTexts* field, const Value* value) {
  static_cast<String&>(*field) = texts.create_joined(elements_of(value));
}

/// The low bits of the number.
template <typename Integer>
void set(const TextBuilder&, Integer* field, const Value* value) {
  *field = static_cast<Integer>(integer_of(value));
}

/// Fields of one byte are flags.
void set(const TextBuilder&, std::int8_t* field, const Value* value) {
  *field = integer_of(value) != 0 ? 1 : 0;
}

void set(const TextBuilder&, double* field, const Value* value) {
  *field = real_of(value);
}

void set(const TextBuilder&, Milliseconds* field, const Value* value) {
  field->count = truncated(real_of(value) * 1000.0);
}

void set(const TextBuilder&, Dravenholt::Transport* field, const Value* value) {
  *field = transport_of(value);
}

void set_address(Address* field, const Value* value, const char* unknown_family) {
  field->value = address_of(value);
  if (field->value && family_of(*field->value) != IPv4 && family_of(*field->value) != IPv6) {
    reports::weird(unknown_family);
    field->value = nullptr;
  }
}

void set(const TextBuilder&, OrigAddress* field, const Value* value) {
  set_address(field, value, "Unknown addr family in orig_h!");
}

void set(const TextBuilder&, RespAddress* field, const Value* value) {
  set_address(field, value, "Unknown addr family in resp_h!");
}

/// The fields of one payload, each at its default until a column of the record sets it. A column
/// that occurs twice sets it twice, so the last occurrence counts.
template <typename... Fields>
struct Columns;

template <>
struct Columns<> {
  __attribute__((always_inline)) void read(const TextBuilder&, const char*, const Value*) {}

  template <typename Make, typename... Made>
  Offset<void> create(FlatBufferBuilder& builder, Make make, Made... made) const {
    return make(builder, made...).Union();
  }
};

template <typename Field, typename... Rest>
struct Columns<Field, Rest...> {
  /// Sets the field whose name the column has: the first name is that of the first field.
  template <std::size_t size, typename... Names>
  __attribute__((always_inline)) void read(const TextBuilder& texts, const char* column,
                                           const Value* value, const char (&name)[size],
                                           const Names&... names) {
    if (is(column, name))
      set(texts, &field, value);
    else
      rest.read(texts, column, value, names...);
  }

  /// Calls `make` with all fields in their order.
  template <typename Make, typename... Made>
  Offset<void> create(FlatBufferBuilder& builder, Make make, Made... made) const {
    return rest.create(builder, make, made..., field);
  }

  Field field = Field();
  Columns<Rest...> rest;
};

/// The payload that `make` builds of the columns `prefix` + `names`: one name for each parameter of
/// `make`, in their order.
template <typename Table, typename... Fields, std::size_t size, typename... Names>
__attribute__((always_inline)) inline Offset<void> create(
    const TextBuilder& texts, const Record& record,
    Offset<Table> (*make)(FlatBufferBuilder&, Fields...), const char (&prefix)[size],
    const Names&... names) {
  static_assert(sizeof...(Fields) == sizeof...(Names), "one name for each parameter of make");
  Columns<Fields...> columns;
  for (int i = 0; i < record.num_fields; i++) {
    const char* const name = record.fields[i]->name;
    if (begins(name, prefix))
      columns.read(texts, name + (size - 1), record.vals[i], names...);
  }
  return columns.create(texts.builder(), make);
}

/// Empty when there is no address.
Offset<flatbuffers::Vector<std::int8_t>> create_address(FlatBufferBuilder& builder,
                                                        const Address& address) {
  if (!address.value)
    return builder.CreateVector(static_cast<const std::int8_t*>(nullptr), 0);
  const bool ipv4 = family_of(*address.value) == IPv4;
  return builder.CreateVector(reinterpret_cast<const std::int8_t*>(&address.value->in),
                              ipv4 ? sizeof(address.value->in.in4) : sizeof(address.value->in.in6));
}

Offset<Dravenholt::GeneralData> create_general(
    FlatBufferBuilder& builder, OrigAddress orig_h, std::uint16_t orig_p, RespAddress resp_h,
    std::uint16_t resp_p, Dravenholt::Transport proto, Milliseconds duration,
    std::uint32_t orig_bytes, std::uint32_t resp_bytes, String conn_state, std::int8_t local_orig,
    std::int8_t local_resp, std::uint32_t missed_bytes, std::uint32_t orig_pkts,
    std::uint32_t orig_ip_bytes, std::uint32_t resp_pkts, std::uint32_t resp_ip_bytes,
    String username, String process, String service) {
  const auto orig = create_address(builder, orig_h);
  const auto orig_name = builder.CreateString("", 0);
  const auto resp = create_address(builder, resp_h);
  const auto resp_name = builder.CreateString("", 0);
  const auto history = builder.CreateString("", 0);
  return Dravenholt::CreateGeneralData(
      builder, orig, orig_name, orig_p, resp, resp_name, resp_p, proto, duration.count, orig_bytes,
      resp_bytes, conn_state, local_orig, local_resp, missed_bytes, history, orig_pkts,
      orig_ip_bytes, resp_pkts, resp_ip_bytes, username, process, service);
}

Offset<Dravenholt::SmtpData> create_smtp(FlatBufferBuilder& builder, String from, JoinedTexts to,
                                         String subject, std::uint64_t req_size) {
  return Dravenholt::CreateSmtpData(builder, from, to, subject, req_size);
}

/// Inbound HTTP records carry their fields as key/value pairs; their columns are not read at all.
Offset<void> create_inbound_http(const TextBuilder& texts, const Elements& keys,
                                 const Elements& vals) {
  String user, method, uri;
  for (std::uint64_t i = 0; i < keys.size && i < vals.size; i++) {
    const Text key = text_of(keys.vals[i]);
    if (equals_ignoring_case(key, "verb"))
      set(texts, &method, vals.vals[i]);
    else if (equals_ignoring_case(key, "url"))
      set(texts, &uri, vals.vals[i]);
    else if (equals_ignoring_case(key, "user"))
      set(texts, &user, vals.vals[i]);
  }
  return Dravenholt::CreateHttpData(texts.builder(), user, method, 0, uri).Union();
}

Offset<void> create_generic(const TextBuilder& texts, String ptype, const Elements& keys,
                            const Elements& vals) {
  FlatBufferBuilder& builder = texts.builder();
  std::vector<Offset<Dravenholt::MapEntry>> pairs;
  pairs.reserve(static_cast<std::size_t>(keys.size < vals.size ? keys.size : vals.size));
  for (std::uint64_t i = 0; i < keys.size && i < vals.size && texts.room() > 0; i++) {
    const String key = texts.create(text_of(keys.vals[i]));
    const String value = texts.create(text_of(vals.vals[i]));
    pairs.push_back(Dravenholt::CreateMapEntry(builder, key, value));
  }
  const auto fields = builder.CreateVector(pairs);
  return Dravenholt::CreateGenericProtocolData(builder, ptype, fields).Union();
}

/// One of 32 bits for each character.
constexpr std::uint32_t initial(char c) {
  return std::uint32_t(1) << (c & 31);
}

/// The first characters of the envelope's columns. Nearly all other columns are passed over by
/// these bits; the few that share one are told by their names.
const std::uint32_t kEnvelopeInitials =
    initial('p') | initial('c') | initial('t') | initial('u') | initial('e');

/// What the first scan of a record finds; later columns overwrite what earlier ones set.
class Envelope {
 public:
  explicit Envelope(const TextBuilder& texts) : texts_(texts) {}

  void scan(const Record& record) {
    for (int i = 0; i < record.num_fields; i++) {
      const char* const name = record.fields[i]->name;
      if (kEnvelopeInitials & initial(name[0]))
        read(name, record.vals[i]);
    }
  }

  Offset<void> create_payload(const Record& record) {
    using namespace Dravenholt;
    switch (type) {
      case Data_GeneralData:
        return create(texts_, record, create_general, "", "id.orig_h", "id.orig_p", "id.resp_h",
                      "id.resp_p", "proto", "duration", "orig_bytes", "resp_bytes", "conn_state",
                      "local_orig", "local_resp", "missed_bytes", "orig_pkts", "orig_ip_bytes",
                      "resp_pkts", "resp_ip_bytes", "username", "process", "service");
      case Data_FtpData:
        return create(texts_, record, CreateFtpData, "ftp.", "user", "command", "reply_code", "arg",
                      "file_size");
      case Data_HttpData:
        if (inbound_)
          return create_inbound_http(texts_, elements_of(extra_fields_), elements_of(extra_vals_));
        return create(texts_, record, CreateHttpData, "http.", "user", "method", "host", "uri",
                      "status_code", "request_body_len", "response_body_len");
      case Data_LdapData:
        return create(texts_, record, CreateLdapData, "ldap.", "user", "message", "resultCode",
                      "base");
      case Data_SmbData:
        return create(texts_, record, CreateSmbData, "smb.", "user", "share", "filename", "action",
                      "filesize");
      case Data_SmtpData:
        return create(texts_, record, create_smtp, "smtp.", "from", "to", "subject", "reqSize");
      case Data_TdsData:
        return create(texts_, record, CreateTdsData, "tds.", "user", "database", "app", "sql");
      case Data_DceRpcData:
        return create(texts_, record, CreateDceRpcData, "dce.", "request_type", "interface_uuid",
                      "interface_name", "opnum", "method", "arguments", "raw_args");
      case Data_Tn5250Data:
        return create(texts_, record, CreateTn5250Data, "tn5250.", "protocol", "details");
      case Data_SystemStatsData:
        // A statistics event belongs to no connection, whatever uid its record may have.
        uid = texts_.builder().CreateString("000000000000000000", 18);
        return create(texts_, record, CreateSystemStatsData, "", "cpu_usage", "priority",
                      "ph_mem_total", "ph_mem_used", "virt_mem_total", "virt_mem_used",
                      "hdd_volume", "hdd_used", "hdd_avail");
      default:
        if (!extra_fields_ || !extra_vals_)
          return 0;
        return create_generic(texts_, ptype_, elements_of(extra_fields_), elements_of(extra_vals_));
    }
  }

  Dravenholt::Data type = Dravenholt::Data_GenericProtocolData;
  double ts = 0.0;
  String uid = 0;

 private:
  void read(const char* name, const Value* value) {
    if (is(name, "ptype")) {
      ptype_ = text_or(value, "Empty type!", "Unknown");
      set_protocol(text_of(value));
    } else if (is(name, "cpu_usage")) {
      type = Dravenholt::Data_SystemStatsData;
      ts = current_time(false);
    } else if (is(name, "ts")) {
      ts = real_of(value);
    } else if (is(name, "uid")) {
      uid = text_or(value, "Empty uid!", "unknown");  // lower case is required, unlike above
    } else if (is(name, "extra_fields")) {
      extra_fields_ = value;
    } else if (is(name, "extra_vals")) {
      extra_vals_ = value;
    }
  }

  String text_or(const Value* value, const char* weird, const char* instead) {
    if (is_set(value))
      return texts_.create(text_of(value));
    reports::weird(weird);
    return texts_.create({instead, strlen(instead)});
  }

  void set_protocol(const Text& name) {
    inbound_ = equals_ignoring_case(name, "http-in");
    if (equals_ignoring_case(name, "general"))  // first, since most records are connections
      type = Dravenholt::Data_GeneralData;
    else if (equals_ignoring_case(name, "ftp"))
      type = Dravenholt::Data_FtpData;
    else if (equals_ignoring_case(name, "http") || inbound_)
      type = Dravenholt::Data_HttpData;
    else if (equals_ignoring_case(name, "ldap"))
      type = Dravenholt::Data_LdapData;
    else if (equals_ignoring_case(name, "smb"))
      type = Dravenholt::Data_SmbData;
    else if (equals_ignoring_case(name, "smtp"))
      type = Dravenholt::Data_SmtpData;
    else if (equals_ignoring_case(name, "tds"))
      type = Dravenholt::Data_TdsData;
    else if (equals_ignoring_case(name, "tn5250"))
      type = Dravenholt::Data_Tn5250Data;
    else if (equals_ignoring_case(name, "dce-rpc"))
      type = Dravenholt::Data_DceRpcData;
    else {
      type = Dravenholt::Data_GenericProtocolData;
      reports::warning("Unsupported protocol type %s, using generic format",
                       std::string(name.data, name.length).c_str());
    }
  }

  const TextBuilder& texts_;
  bool inbound_ = false;
  String ptype_ = 0;
  const Value* extra_fields_ = nullptr;
  const Value* extra_vals_ = nullptr;
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
  const String agent = texts.create({agent_id.data(), agent_id.size()});

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
