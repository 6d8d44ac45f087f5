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

// ---- column names ----

/// The characters `at` up to `end` of a name beside those of a literal of `size` bytes.
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

/// Whether a column has that name. It is asked of every column of every record, so it is spelled
/// out for the compiler, which makes one comparison with a constant of each character: that costs
/// less than any call, or than finding out how long the name is. It ends at the first difference,
/// so nothing behind the name's terminator is read.
template <std::size_t size>
__attribute__((always_inline)) inline bool is(const char* name, const char (&literal)[size]) {
  return Characters<size, 0, size>::equal(name, literal);
}

/// What of the name follows the prefix; null when it begins otherwise.
template <std::size_t size>
__attribute__((always_inline)) inline const char* behind(const char (&prefix)[size],
                                                         const char* name) {
  return Characters<size, 0, size - 1>::equal(name, prefix) ? name + (size - 1) : nullptr;
}

// ---- reading host values: the type decides which member may be read ----

struct Text {
  const char* data;
  std::size_t length;
};

bool is_set(const threading::Value* value) {
  return value && value->present;
}

constexpr std::uint32_t bit(TypeTag type) {
  return std::uint32_t(1) << type;
}
static_assert(NUM_TYPES <= 32, "a set of types is a word");

/// Whether the value is set and of one of the types.
template <std::uint32_t types>
__attribute__((always_inline)) inline bool is_one_of(const threading::Value* value) {
  const std::uint32_t type = is_set(value) ? static_cast<std::uint32_t>(value->type) : 32;
  return type < 32 && (types >> type & 1) != 0;
}

Text text_of(const threading::Value* value) {
  const std::uint32_t texts = bit(TYPE_STRING) | bit(TYPE_ENUM) | bit(TYPE_FILE) | bit(TYPE_FUNC);
  const Text none = {"", 0};
  if (!is_one_of<texts>(value) || !value->val.string_val.data || value->val.string_val.length <= 0)
    return none;
  return {value->val.string_val.data, static_cast<std::size_t>(value->val.string_val.length)};
}

std::uint64_t integer_of(const threading::Value* value) {
  const std::uint32_t integers =
      bit(TYPE_COUNT) | bit(TYPE_COUNTER) | bit(TYPE_BOOL) | bit(TYPE_INT) | bit(TYPE_PORT);
  if (!is_one_of<integers>(value))
    return 0;
  // The one of the three that the type goes with: they share their place.
  static_assert(sizeof(value->val.uint_val) == 8 && sizeof(value->val.int_val) == 8 &&
                    sizeof(value->val.port_val.port) == 8,
                "integers of several widths");
  std::uint64_t number;
  memcpy(&number, &value->val, sizeof number);
  return number;
}

std::uint16_t low16(const threading::Value* value) {
  return static_cast<std::uint16_t>(integer_of(value));
}

std::uint32_t low32(const threading::Value* value) {
  return static_cast<std::uint32_t>(integer_of(value));
}

std::int32_t signed_low32(const threading::Value* value) {
  return static_cast<std::int32_t>(low32(value));
}

std::int8_t flag_of(const threading::Value* value) {
  return integer_of(value) != 0 ? 1 : 0;
}

double real_of(const threading::Value* value) {
  const std::uint32_t reals = bit(TYPE_TIME) | bit(TYPE_INTERVAL) | bit(TYPE_DOUBLE);
  return is_one_of<reals>(value) ? value->val.double_val : 0.0;
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

/// Whether the whole text is that, which must be in lower case and begin with a letter. Most texts
/// are told from it by their length or first character, and most others are exactly that.
template <std::size_t size>
bool equals_ignoring_case(const Text& text, const char (&literal)[size]) {
  const std::size_t length = size - 1;
  return text.length == length && (text.data[0] | 0x20) == literal[0] &&
         (memcmp(text.data, literal, length) == 0 ||
          strcasecmp_n(static_cast<int>(length), text.data, literal) == 0);
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

  Offset<flatbuffers::String> create(const Text& text) const {
    const std::size_t most = room();
    return builder_->CreateString(text.data, text.length < most ? text.length : most);
  }

  Offset<flatbuffers::String> create_joined(const Elements& elements) const {
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

using String = Offset<flatbuffers::String>;
using Value = threading::Value;

// Each payload's columns: a struct with one member per schema field, at its default until a column
// of the record sets it. A column that occurs twice is read twice, and its last occurrence counts.

struct GeneralColumns {
  explicit GeneralColumns(const TextBuilder& builder) : texts(builder) {}

  void read(const char* name, const Value* value) {
    switch (name[0]) {
      case 'i':
        if (const char* rest = behind("id.orig_", name))
          orig.read_id(rest, value, "Unknown addr family in orig_h!");
        else if (const char* rest = behind("id.resp_", name))
          resp.read_id(rest, value, "Unknown addr family in resp_h!");
        break;
      case 'o':
        if (const char* rest = behind("orig_", name))
          orig.read(rest, value);
        break;
      case 'r':
        if (const char* rest = behind("resp_", name))
          resp.read(rest, value);
        break;
      case 'l':
        if (is(name, "local_orig"))
          local_orig = flag_of(value);
        else if (is(name, "local_resp"))
          local_resp = flag_of(value);
        break;
      case 'p':
        if (is(name, "proto"))
          proto = transport_of(value);
        else if (is(name, "process"))
          process = texts.create(text_of(value));
        break;
      case 'd':
        if (is(name, "duration"))
          duration_ms = truncated(real_of(value) * 1000.0);
        break;
      case 'c':
        if (is(name, "conn_state"))
          conn_state = texts.create(text_of(value));
        break;
      case 'm':
        if (is(name, "missed_bytes"))
          missed_bytes = low32(value);
        break;
      case 'u':
        if (is(name, "username"))
          username = texts.create(text_of(value));
        break;
      case 's':
        if (is(name, "service"))
          service = texts.create(text_of(value));
        break;
    }
  }

  Offset<void> create() const {
    FlatBufferBuilder& builder = texts.builder();
    const auto orig_h = orig.create_address(builder);
    const auto orig_name = builder.CreateString("", 0);
    const auto resp_h = resp.create_address(builder);
    const auto resp_name = builder.CreateString("", 0);
    const auto history = builder.CreateString("", 0);
    return Dravenholt::CreateGeneralData(builder, orig_h, orig_name, orig.port, resp_h, resp_name,
                                         resp.port, proto, duration_ms, orig.bytes, resp.bytes,
                                         conn_state, local_orig, local_resp, missed_bytes, history,
                                         orig.packets, orig.ip_bytes, resp.packets, resp.ip_bytes,
                                         username, process, service)
        .Union();
  }

 private:
  /// One end of the connection: the columns "orig_bytes" and so on, without that prefix.
  struct End {
    void read(const char* name, const Value* value) {
      if (is(name, "bytes"))
        bytes = low32(value);
      else if (is(name, "pkts"))
        packets = low32(value);
      else if (is(name, "ip_bytes"))
        ip_bytes = low32(value);
    }

    /// The columns "id.orig_h" and so on, without "id.orig_".
    void read_id(const char* name, const Value* value, const char* unknown_family) {
      if (is(name, "h"))
        read_address(value, unknown_family);
      else if (is(name, "p"))
        port = low16(value);
    }

    void read_address(const Value* value, const char* unknown_family) {
      address = address_of(value);
      if (address && family_of(*address) != IPv4 && family_of(*address) != IPv6) {
        reports::weird(unknown_family);
        address = nullptr;
      }
    }

    /// Empty when there is no address.
    Offset<flatbuffers::Vector<std::int8_t>> create_address(FlatBufferBuilder& builder) const {
      if (!address)
        return builder.CreateVector(static_cast<const std::int8_t*>(nullptr), 0);
      return builder.CreateVector(
          reinterpret_cast<const std::int8_t*>(&address->in),
          family_of(*address) == IPv4 ? sizeof(address->in.in4) : sizeof(address->in.in6));
    }

    const Value::addr_t* address = nullptr;
    std::uint16_t port = 0;
    std::uint32_t bytes = 0;
    std::uint32_t packets = 0;
    std::uint32_t ip_bytes = 0;
  };

  const TextBuilder& texts;
  End orig;
  End resp;
  Dravenholt::Transport proto = Dravenholt::Transport_unknown;
  std::uint64_t duration_ms = 0;
  std::int8_t local_orig = 0;
  std::int8_t local_resp = 0;
  std::uint32_t missed_bytes = 0;
  String conn_state;
  String username;
  String process;
  String service;
};

struct FtpColumns {
  explicit FtpColumns(const TextBuilder& builder) : texts(builder) {}

  void read(const char* name, const Value* value) {
    const char* rest = behind("ftp.", name);
    if (!rest)
      return;
    if (is(rest, "user"))
      user = texts.create(text_of(value));
    else if (is(rest, "command"))
      command = texts.create(text_of(value));
    else if (is(rest, "arg"))
      arg = texts.create(text_of(value));
    else if (is(rest, "reply_code"))
      reply_code = low16(value);
    else if (is(rest, "file_size"))
      file_size = integer_of(value);
  }

  Offset<void> create() const {
    return Dravenholt::CreateFtpData(texts.builder(), user, command, reply_code, arg, file_size)
        .Union();
  }

  const TextBuilder& texts;
  String user;
  String command;
  String arg;
  std::uint16_t reply_code = 0;
  std::uint64_t file_size = 0;
};

struct HttpColumns {
  explicit HttpColumns(const TextBuilder& builder) : texts(builder) {}

  void read(const char* name, const Value* value) {
    const char* rest = behind("http.", name);
    if (!rest)
      return;
    if (is(rest, "user"))
      user = texts.create(text_of(value));
    else if (is(rest, "method"))
      method = texts.create(text_of(value));
    else if (is(rest, "host"))
      host = texts.create(text_of(value));
    else if (is(rest, "uri"))
      uri = texts.create(text_of(value));
    else if (is(rest, "status_code"))
      status_code = low16(value);
    else if (is(rest, "request_body_len"))
      request_body_len = integer_of(value);
    else if (is(rest, "response_body_len"))
      response_body_len = integer_of(value);
  }

  Offset<void> create() const {
    return Dravenholt::CreateHttpData(texts.builder(), user, method, host, uri, status_code,
                                      request_body_len, response_body_len)
        .Union();
  }

  const TextBuilder& texts;
  String user;
  String method;
  String host;
  String uri;
  std::uint16_t status_code = 0;
  std::uint64_t request_body_len = 0;
  std::uint64_t response_body_len = 0;
};

struct LdapColumns {
  explicit LdapColumns(const TextBuilder& builder) : texts(builder) {}

  void read(const char* name, const Value* value) {
    const char* rest = behind("ldap.", name);
    if (!rest)
      return;
    if (is(rest, "user"))
      user = texts.create(text_of(value));
    else if (is(rest, "message"))
      message = texts.create(text_of(value));
    else if (is(rest, "base"))
      base = texts.create(text_of(value));
    else if (is(rest, "resultCode"))
      result_code = low16(value);
  }

  Offset<void> create() const {
    return Dravenholt::CreateLdapData(texts.builder(), user, message, result_code, base).Union();
  }

  const TextBuilder& texts;
  String user;
  String message;
  String base;
  std::uint16_t result_code = 0;
};

struct SmbColumns {
  explicit SmbColumns(const TextBuilder& builder) : texts(builder) {}

  void read(const char* name, const Value* value) {
    const char* rest = behind("smb.", name);
    if (!rest)
      return;
    if (is(rest, "user"))
      user = texts.create(text_of(value));
    else if (is(rest, "share"))
      share = texts.create(text_of(value));
    else if (is(rest, "filename"))
      filename = texts.create(text_of(value));
    else if (is(rest, "action"))
      action = texts.create(text_of(value));
    else if (is(rest, "filesize"))
      filesize = integer_of(value);
  }

  Offset<void> create() const {
    return Dravenholt::CreateSmbData(texts.builder(), user, share, filename, action, filesize)
        .Union();
  }

  const TextBuilder& texts;
  String user;
  String share;
  String filename;
  String action;
  std::uint64_t filesize = 0;
};

struct SmtpColumns {
  explicit SmtpColumns(const TextBuilder& builder) : texts(builder) {}

  void read(const char* name, const Value* value) {
    const char* rest = behind("smtp.", name);
    if (!rest)
      return;
    if (is(rest, "from"))
      from = texts.create(text_of(value));
    else if (is(rest, "to"))
      to = texts.create_joined(elements_of(value));
    else if (is(rest, "subject"))
      subject = texts.create(text_of(value));
    else if (is(rest, "reqSize"))
      req_size = integer_of(value);
  }

  Offset<void> create() const {
    return Dravenholt::CreateSmtpData(texts.builder(), from, to, subject, req_size).Union();
  }

  const TextBuilder& texts;
  String from;
  String to;
  String subject;
  std::uint64_t req_size = 0;
};

struct TdsColumns {
  explicit TdsColumns(const TextBuilder& builder) : texts(builder) {}

  void read(const char* name, const Value* value) {
    const char* rest = behind("tds.", name);
    if (!rest)
      return;
    if (is(rest, "user"))
      user = texts.create(text_of(value));
    else if (is(rest, "database"))
      database = texts.create(text_of(value));
    else if (is(rest, "app"))
      app = texts.create(text_of(value));
    else if (is(rest, "sql"))
      sql = texts.create(text_of(value));
  }

  Offset<void> create() const {
    return Dravenholt::CreateTdsData(texts.builder(), user, database, app, sql).Union();
  }

  const TextBuilder& texts;
  String user;
  String database;
  String app;
  String sql;
};

struct DceRpcColumns {
  explicit DceRpcColumns(const TextBuilder& builder) : texts(builder) {}

  void read(const char* name, const Value* value) {
    const char* rest = behind("dce.", name);
    if (!rest)
      return;
    if (is(rest, "request_type"))
      request_type = texts.create(text_of(value));
    else if (is(rest, "interface_uuid"))
      interface_uuid = texts.create(text_of(value));
    else if (is(rest, "interface_name"))
      interface_name = texts.create(text_of(value));
    else if (is(rest, "opnum"))
      opnum = signed_low32(value);
    else if (is(rest, "method"))
      method = texts.create(text_of(value));
    else if (is(rest, "arguments"))
      arguments = texts.create(text_of(value));
    else if (is(rest, "raw_args"))
      raw_args = texts.create(text_of(value));
  }

  Offset<void> create() const {
    return Dravenholt::CreateDceRpcData(texts.builder(), request_type, interface_uuid,
                                        interface_name, opnum, method, arguments, raw_args)
        .Union();
  }

  const TextBuilder& texts;
  String request_type;
  String interface_uuid;
  String interface_name;
  std::int32_t opnum = 0;
  String method;
  String arguments;
  String raw_args;
};

struct Tn5250Columns {
  explicit Tn5250Columns(const TextBuilder& builder) : texts(builder) {}

  void read(const char* name, const Value* value) {
    const char* rest = behind("tn5250.", name);
    if (!rest)
      return;
    if (is(rest, "protocol"))
      protocol = texts.create(text_of(value));
    else if (is(rest, "details"))
      details = texts.create(text_of(value));
  }

  Offset<void> create() const {
    return Dravenholt::CreateTn5250Data(texts.builder(), protocol, details).Union();
  }

  const TextBuilder& texts;
  String protocol;
  String details;
};

struct StatsColumns {
  explicit StatsColumns(const TextBuilder& builder) : texts(builder) {}

  void read(const char* name, const Value* value) {
    if (is(name, "cpu_usage"))
      cpu_usage = real_of(value);
    else if (is(name, "priority"))
      priority = signed_low32(value);
    else if (is(name, "ph_mem_total"))
      ph_mem_total = signed_low32(value);
    else if (is(name, "ph_mem_used"))
      ph_mem_used = signed_low32(value);
    else if (is(name, "virt_mem_total"))
      virt_mem_total = signed_low32(value);
    else if (is(name, "virt_mem_used"))
      virt_mem_used = signed_low32(value);
    else if (is(name, "hdd_volume"))
      hdd_volume = real_of(value);
    else if (is(name, "hdd_used"))
      hdd_used = real_of(value);
    else if (is(name, "hdd_avail"))
      hdd_avail = real_of(value);
  }

  Offset<void> create() const {
    return Dravenholt::CreateSystemStatsData(texts.builder(), cpu_usage, priority, ph_mem_total,
                                             ph_mem_used, virt_mem_total, virt_mem_used, hdd_volume,
                                             hdd_used, hdd_avail)
        .Union();
  }

  const TextBuilder& texts;
  double cpu_usage = 0.0;
  std::int32_t priority = 0;
  std::int32_t ph_mem_total = 0;
  std::int32_t ph_mem_used = 0;
  std::int32_t virt_mem_total = 0;
  std::int32_t virt_mem_used = 0;
  double hdd_volume = 0.0;
  double hdd_used = 0.0;
  double hdd_avail = 0.0;
};

template <typename Columns>
Offset<void> create(const TextBuilder& texts, const Record& record) {
  Columns columns(texts);
  for (int i = 0; i < record.num_fields; i++)
    columns.read(record.fields[i]->name, record.vals[i]);
  return columns.create();
}

/// Inbound HTTP records carry their fields as key/value pairs; their columns are not read at all.
Offset<void> create_inbound_http(const TextBuilder& texts, const Elements& keys,
                                 const Elements& vals) {
  HttpColumns columns(texts);
  for (std::uint64_t i = 0; i < keys.size && i < vals.size; i++) {
    const Text key = text_of(keys.vals[i]);
    if (equals_ignoring_case(key, "verb"))
      columns.method = texts.create(text_of(vals.vals[i]));
    else if (equals_ignoring_case(key, "url"))
      columns.uri = texts.create(text_of(vals.vals[i]));
    else if (equals_ignoring_case(key, "user"))
      columns.user = texts.create(text_of(vals.vals[i]));
  }
  return columns.create();
}

Offset<void> create_generic(const TextBuilder& texts, Offset<flatbuffers::String> ptype,
                            const Elements& keys, const Elements& vals) {
  FlatBufferBuilder& builder = texts.builder();
  std::vector<Offset<Dravenholt::MapEntry>> pairs;
  pairs.reserve(static_cast<std::size_t>(keys.size < vals.size ? keys.size : vals.size));
  for (std::uint64_t i = 0; i < keys.size && i < vals.size && texts.room() > 0; i++) {
    const Offset<flatbuffers::String> key = texts.create(text_of(keys.vals[i]));
    const Offset<flatbuffers::String> value = texts.create(text_of(vals.vals[i]));
    pairs.push_back(Dravenholt::CreateMapEntry(builder, key, value));
  }
  const auto fields = builder.CreateVector(pairs);
  return Dravenholt::CreateGenericProtocolData(builder, ptype, fields).Union();
}

/// The first characters of the columns that the envelope is made of, by which nearly all others are
/// passed over.
class EnvelopeInitials {
 public:
  EnvelopeInitials() : among_() {
    for (const char* initial = "pctue"; *initial; initial++)
      among_[static_cast<unsigned char>(*initial)] = true;
  }
  bool has(char initial) const { return among_[static_cast<unsigned char>(initial)]; }

 private:
  bool among_[256];
};
const EnvelopeInitials kEnvelopeInitials;

/// What the first scan of a record finds; later columns overwrite what earlier ones set.
class Envelope {
 public:
  explicit Envelope(const TextBuilder& texts) : texts_(texts) {}

  void scan(const Record& record) {
    for (int i = 0; i < record.num_fields; i++) {
      const char* const name = record.fields[i]->name;
      if (kEnvelopeInitials.has(name[0]))
        read(name, record.vals[i]);
    }
  }

  Offset<void> create_payload(const Record& record) {
    switch (type) {
      case Dravenholt::Data_GeneralData:
        return create<GeneralColumns>(texts_, record);
      case Dravenholt::Data_FtpData:
        return create<FtpColumns>(texts_, record);
      case Dravenholt::Data_HttpData:
        if (inbound_)
          return create_inbound_http(texts_, elements_of(extra_fields_), elements_of(extra_vals_));
        return create<HttpColumns>(texts_, record);
      case Dravenholt::Data_LdapData:
        return create<LdapColumns>(texts_, record);
      case Dravenholt::Data_SmbData:
        return create<SmbColumns>(texts_, record);
      case Dravenholt::Data_SmtpData:
        return create<SmtpColumns>(texts_, record);
      case Dravenholt::Data_TdsData:
        return create<TdsColumns>(texts_, record);
      case Dravenholt::Data_DceRpcData:
        return create<DceRpcColumns>(texts_, record);
      case Dravenholt::Data_Tn5250Data:
        return create<Tn5250Columns>(texts_, record);
      case Dravenholt::Data_SystemStatsData:
        // A statistics event belongs to no connection, whatever uid its record may have.
        uid = texts_.builder().CreateString("000000000000000000", 18);
        return create<StatsColumns>(texts_, record);
      default:
        if (!extra_fields_ || !extra_vals_)
          return 0;
        return create_generic(texts_, ptype_, elements_of(extra_fields_), elements_of(extra_vals_));
    }
  }

  Dravenholt::Data type = Dravenholt::Data_GenericProtocolData;
  double ts = 0.0;
  Offset<flatbuffers::String> uid = 0;

 private:
  void read(const char* name, const threading::Value* value) {
    if (is(name, "ptype")) {
      ptype_ = text_or(value, "Empty type!", "Unknown");
      set_protocol(text_of(value));
    } else if (is(name, "cpu_usage")) {
      type = Dravenholt::Data_SystemStatsData;
      ts = current_time(false);
    } else if (is(name, "ts")) {
      ts = real_of(value);
    } else if (is(name, "uid")) {
      uid = text_or(value, "Empty uid!", "unknown");  // lower case, unlike "Unknown": on purpose
    } else if (is(name, "extra_fields")) {
      extra_fields_ = value;
    } else if (is(name, "extra_vals")) {
      extra_vals_ = value;
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
    inbound_ = false;
    if (equals_ignoring_case(name, "ftp")) {
      type = Dravenholt::Data_FtpData;
    } else if (equals_ignoring_case(name, "http")) {
      type = Dravenholt::Data_HttpData;
    } else if (equals_ignoring_case(name, "http-in")) {
      type = Dravenholt::Data_HttpData;
      inbound_ = true;
    } else if (equals_ignoring_case(name, "ldap")) {
      type = Dravenholt::Data_LdapData;
    } else if (equals_ignoring_case(name, "smb")) {
      type = Dravenholt::Data_SmbData;
    } else if (equals_ignoring_case(name, "smtp")) {
      type = Dravenholt::Data_SmtpData;
    } else if (equals_ignoring_case(name, "tds")) {
      type = Dravenholt::Data_TdsData;
    } else if (equals_ignoring_case(name, "tn5250")) {
      type = Dravenholt::Data_Tn5250Data;
    } else if (equals_ignoring_case(name, "dce-rpc")) {
      type = Dravenholt::Data_DceRpcData;
    } else if (equals_ignoring_case(name, "general")) {
      type = Dravenholt::Data_GeneralData;
    } else {
      reports::warning("Unsupported protocol type %s, using generic format",
                       std::string(name.data, name.length).c_str());
      type = Dravenholt::Data_GenericProtocolData;
    }
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
