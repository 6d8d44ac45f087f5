#include "SampleRecords.h"

#include <arpa/inet.h>
#include <sys/time.h>

#include <cstdint>
#include <functional>
#include <random>
#include <utility>

#include "RecordConversion.h"
#include "aggregator_generated.h"

namespace bench {

const std::string kAgentId = "6FbVnmZzWxkqLxg2EzYqSr";

namespace {

using flatbuffers::FlatBufferBuilder;
using flatbuffers::Offset;
using flatbuffers::String;
using Random = std::mt19937;

std::int32_t minutes_west() {
  struct timeval now = {};
  struct timezone zone = {};
  gettimeofday(&now, &zone);
  return zone.tz_minuteswest;
}

const std::int32_t kMinutesWest = minutes_west();

std::uint32_t number(Random& random, std::uint32_t most) {
  return std::uniform_int_distribution<std::uint32_t>(0, most)(random);
}

/// `least` to `most` letters.
std::string letters(Random& random, std::uint32_t least, std::uint32_t most) {
  std::string text(least + number(random, most - least), 'a');
  for (char& c : text)
    c = static_cast<char>('a' + number(random, 25));
  return text;
}

std::string one_of(Random& random, const std::vector<std::string>& texts) {
  return texts[number(random, static_cast<std::uint32_t>(texts.size() - 1))];
}

struct Address {
  explicit Address(Random& random) : length(number(random, 9) == 0 ? 16 : 4) {
    for (std::int8_t& byte : bytes)
      byte = static_cast<std::int8_t>(number(random, 255));
    bytes[0] = 32;  // of a kind that no family turns into the other
    char buffer[INET6_ADDRSTRLEN];
    text = inet_ntop(length == 4 ? AF_INET : AF_INET6, bytes, buffer, sizeof buffer);
  }
  std::size_t length;
  std::int8_t bytes[16];
  std::string text;
};

/// What every kind of record begins with.
class WithEnvelope : public Sample {
 public:
  explicit WithEnvelope(Random& random)
      : ts(1433419200.0 + number(random, 1000000) / 64.0), uid("C" + letters(random, 16, 17)) {}

 protected:
  void finish(FlatBufferBuilder& builder, Offset<String> uid_text, Offset<String> agent,
              Dravenholt::Data type, Offset<void> payload) const {
    builder.Finish(
        Dravenholt::CreateNetworkEvent(builder, uid_text, ts, kMinutesWest, agent, type, payload));
  }

  double ts;
  std::string uid;
};

/// Begins with ptype, ts, uid and the id.* columns, as the scripts' protocol records do.
class WithProtocol : public WithEnvelope {
 public:
  WithProtocol(Random& random, const std::string& name, Dravenholt::Data type)
      : WithEnvelope(random),
        ptype(name),
        type_(type),
        orig_h(random),
        resp_h(random),
        orig_p(static_cast<std::uint16_t>(number(random, 65535))),
        resp_p(static_cast<std::uint16_t>(number(random, 65535))) {
    record_.text("ptype", ptype).time("ts", ts).text("uid", uid);
    record_.addr("id.orig_h", orig_h.text).port("id.orig_p", orig_p);
    record_.addr("id.resp_h", resp_h.text).port("id.resp_p", resp_p);
  }

  void build(FlatBufferBuilder& builder) const override {
    const Offset<String> agent = builder.CreateString(kAgentId);
    builder.CreateString(ptype);
    const Offset<String> uid_text = builder.CreateString(uid);
    finish(builder, uid_text, agent, type_, payload(builder));
  }

 protected:
  virtual Offset<void> payload(FlatBufferBuilder& builder) const = 0;

  std::string ptype;
  Dravenholt::Data type_;
  Address orig_h;
  Address resp_h;
  std::uint16_t orig_p;
  std::uint16_t resp_p;
};

class Connection : public WithProtocol {
 public:
  /// With others behind its own columns if `columns` says so.
  explicit Connection(Random& random, int columns = 22)
      : WithProtocol(random, "general", Dravenholt::Data_GeneralData),
        service_(one_of(random, {"http", "ssl", "dns", "ssh"})),
        conn_state_(one_of(random, {"SF", "S0", "REJ", "RSTO"})),
        username_(letters(random, 3, 10)),
        process_(letters(random, 4, 20)),
        duration_(number(random, 100000) / 64.0),
        tcp_(number(random, 3) > 0),
        local_orig_(number(random, 1) == 1) {
    for (std::uint32_t& count : counts_)
      count = number(random, 10000000);
    record_.enumerator("proto", tcp_ ? "tcp" : "udp").text("service", service_);
    record_.interval("duration", duration_).count("orig_bytes", counts_[0]);
    record_.count("resp_bytes", counts_[1]).text("conn_state", conn_state_);
    record_.boolean("local_orig", local_orig_).boolean("local_resp", !local_orig_);
    record_.count("missed_bytes", counts_[2]).count("orig_pkts", counts_[3]);
    record_.count("orig_ip_bytes", counts_[4]).count("resp_pkts", counts_[5]);
    record_.count("resp_ip_bytes", counts_[6])
        .text("username", username_)
        .text("process", process_);
    for (int i = record_.size(); i < columns; i++)
      record_.count("more." + std::to_string(i), number(random, 1000));
  }

 protected:
  Offset<void> payload(FlatBufferBuilder& builder) const override {
    const auto service = builder.CreateString(service_);
    const auto conn_state = builder.CreateString(conn_state_);
    const auto username = builder.CreateString(username_);
    const auto process = builder.CreateString(process_);
    const auto orig = builder.CreateVector(orig_h.bytes, orig_h.length);
    const auto orig_name = builder.CreateString("", 0);
    const auto resp = builder.CreateVector(resp_h.bytes, resp_h.length);
    const auto resp_name = builder.CreateString("", 0);
    const auto history = builder.CreateString("", 0);
    return Dravenholt::CreateGeneralData(
               builder, orig, orig_name, orig_p, resp, resp_name, resp_p,
               tcp_ ? Dravenholt::Transport_tcp : Dravenholt::Transport_udp,
               static_cast<std::uint64_t>(duration_ * 1000.0), counts_[0], counts_[1], conn_state,
               local_orig_, !local_orig_, counts_[2], history, counts_[3], counts_[4], counts_[5],
               counts_[6], username, process, service)
        .Union();
  }

 private:
  std::string service_;
  std::string conn_state_;
  std::string username_;
  std::string process_;
  double duration_;
  bool tcp_;
  bool local_orig_;
  std::uint32_t counts_[7];
};

class Http : public WithProtocol {
 public:
  explicit Http(Random& random)
      : WithProtocol(random, "http", Dravenholt::Data_HttpData),
        user_(letters(random, 3, 10)),
        method_(one_of(random, {"GET", "POST", "HEAD"})),
        host_(letters(random, 8, 30)),
        uri_("/" + letters(random, 5, 120)),
        status_code_(static_cast<std::uint16_t>(200 + number(random, 300))),
        request_(number(random, 5000)),
        response_(number(random, 5000000)) {
    record_.text("http.user", user_).text("http.method", method_).text("http.host", host_);
    record_.text("http.uri", uri_).count("http.status_code", status_code_);
    record_.count("http.request_body_len", request_).count("http.response_body_len", response_);
  }

 protected:
  Offset<void> payload(FlatBufferBuilder& builder) const override {
    const auto user = builder.CreateString(user_);
    const auto method = builder.CreateString(method_);
    const auto host = builder.CreateString(host_);
    const auto uri = builder.CreateString(uri_);
    return Dravenholt::CreateHttpData(builder, user, method, host, uri, status_code_, request_,
                                      response_)
        .Union();
  }

 private:
  std::string user_;
  std::string method_;
  std::string host_;
  std::string uri_;
  std::uint16_t status_code_;
  std::uint64_t request_;
  std::uint64_t response_;
};

class InboundHttp : public WithProtocol {
 public:
  explicit InboundHttp(Random& random)
      : WithProtocol(random, "http-in", Dravenholt::Data_HttpData),
        uri_("/" + letters(random, 5, 120)),
        user_(letters(random, 3, 10)) {
    record_.vec("extra_fields", {"VERB", "URL", "USER", "AGENT"});
    record_.vec("extra_vals", {"GET", uri_, user_, letters(random, 10, 40)});
  }

 protected:
  Offset<void> payload(FlatBufferBuilder& builder) const override {
    const auto method = builder.CreateString("GET", 3);
    const auto uri = builder.CreateString(uri_);
    const auto user = builder.CreateString(user_);
    return Dravenholt::CreateHttpData(builder, user, method, 0, uri).Union();
  }

 private:
  std::string uri_;
  std::string user_;
};

class Ftp : public WithProtocol {
 public:
  explicit Ftp(Random& random)
      : WithProtocol(random, "ftp", Dravenholt::Data_FtpData),
        user_(letters(random, 3, 10)),
        command_(one_of(random, {"RETR", "STOR", "PASV"})),
        arg_("ftp://" + letters(random, 10, 60)),
        reply_code_(static_cast<std::uint16_t>(100 + number(random, 400))),
        file_size_(number(random, 4000000000u)) {
    record_.text("ftp.user", user_).text("ftp.command", command_).text("ftp.arg", arg_);
    record_.count("ftp.reply_code", reply_code_).count("ftp.file_size", file_size_);
  }

 protected:
  Offset<void> payload(FlatBufferBuilder& builder) const override {
    const auto user = builder.CreateString(user_);
    const auto command = builder.CreateString(command_);
    const auto arg = builder.CreateString(arg_);
    return Dravenholt::CreateFtpData(builder, user, command, reply_code_, arg, file_size_).Union();
  }

 private:
  std::string user_;
  std::string command_;
  std::string arg_;
  std::uint16_t reply_code_;
  std::uint64_t file_size_;
};

class Smtp : public WithProtocol {
 public:
  explicit Smtp(Random& random)
      : WithProtocol(random, "smtp", Dravenholt::Data_SmtpData),
        from_(letters(random, 10, 25)),
        subject_(letters(random, 5, 60)),
        req_size_(number(random, 100000)) {
    const std::vector<std::string> to = {letters(random, 10, 25), letters(random, 10, 25),
                                         letters(random, 10, 25)};
    to_ = to[0] + "," + to[1] + "," + to[2];
    record_.text("smtp.from", from_).set("smtp.to", to).text("smtp.subject", subject_);
    record_.count("smtp.reqSize", req_size_);
  }

 protected:
  Offset<void> payload(FlatBufferBuilder& builder) const override {
    const auto from = builder.CreateString(from_);
    const auto to = builder.CreateString(to_);
    const auto subject = builder.CreateString(subject_);
    return Dravenholt::CreateSmtpData(builder, from, to, subject, req_size_).Union();
  }

 private:
  std::string from_;
  std::string to_;
  std::string subject_;
  std::uint64_t req_size_;
};

/// The kinds whose columns are texts and at most one count behind them. `make` takes the texts in
/// the order of the columns.
class Texts : public WithProtocol {
 public:
  using Make = std::function<Offset<void>(FlatBufferBuilder&, const Offset<String>* texts,
                                          std::uint32_t count)>;

  Texts(Random& random, const std::string& ptype, Dravenholt::Data type,
        const std::vector<std::string>& text_columns, const std::string& count_column, Make make)
      : WithProtocol(random, ptype, type), count_(number(random, 60000)), make_(std::move(make)) {
    for (const std::string& column : text_columns) {
      texts_.push_back(letters(random, 4, 40));
      record_.text(column, texts_.back());
    }
    if (!count_column.empty())
      record_.count(count_column, count_);
  }

 protected:
  Offset<void> payload(FlatBufferBuilder& builder) const override {
    Offset<String> made[8];
    for (std::size_t i = 0; i < texts_.size(); i++)
      made[i] = builder.CreateString(texts_[i]);
    return make_(builder, made, count_);
  }

 private:
  std::vector<std::string> texts_;
  std::uint32_t count_;
  Make make_;
};

class Statistics : public WithEnvelope {
 public:
  explicit Statistics(Random& random) : WithEnvelope(random) {
    for (double& real : reals_)
      real = number(random, 100000) / 64.0;
    for (std::int32_t& count : counts_)
      count = static_cast<std::int32_t>(1 + number(random, 100000));
    record_.real("cpu_usage", reals_[0]).integer("priority", counts_[0]);
    record_.count("ph_mem_total", counts_[1]).count("ph_mem_used", counts_[2]);
    record_.count("virt_mem_total", counts_[3]).count("virt_mem_used", counts_[4]);
    record_.real("hdd_volume", reals_[1]).real("hdd_used", reals_[2]).real("hdd_avail", reals_[3]);
    // Behind cpu_usage, which sets the current time: so the message can be compared.
    record_.time("ts", ts);
  }

  void build(FlatBufferBuilder& builder) const override {
    const auto agent = builder.CreateString(kAgentId);
    const auto fixed_uid = builder.CreateString("000000000000000000", 18);
    const auto payload =
        Dravenholt::CreateSystemStatsData(builder, reals_[0], counts_[0], counts_[1], counts_[2],
                                          counts_[3], counts_[4], reals_[1], reals_[2], reals_[3]);
    finish(builder, fixed_uid, agent, Dravenholt::Data_SystemStatsData, payload.Union());
  }

 private:
  double reals_[4];
  std::int32_t counts_[5];
};

class Pairs : public WithEnvelope {
 public:
  Pairs(Random& random, int pairs) : WithEnvelope(random) {
    for (int i = 0; i < pairs; i++) {
      keys_.push_back(letters(random, 4, 16));
      vals_.push_back(letters(random, 1, 30));
    }
    record_.time("ts", ts).text("uid", uid).vec("extra_fields", keys_).vec("extra_vals", vals_);
  }

  void build(FlatBufferBuilder& builder) const override {
    const auto agent = builder.CreateString(kAgentId);
    const auto uid_text = builder.CreateString(uid);
    std::vector<Offset<Dravenholt::MapEntry>> entries;
    entries.reserve(keys_.size());
    for (std::size_t i = 0; i < keys_.size(); i++) {
      const auto key = builder.CreateString(keys_[i]);
      const auto value = builder.CreateString(vals_[i]);
      entries.push_back(Dravenholt::CreateMapEntry(builder, key, value));
    }
    const auto fields = builder.CreateVector(entries);
    const auto payload = Dravenholt::CreateGenericProtocolData(builder, 0, fields);
    finish(builder, uid_text, agent, Dravenholt::Data_GenericProtocolData, payload.Union());
  }

 private:
  std::vector<std::string> keys_;
  std::vector<std::string> vals_;
};

using Maker = std::function<std::unique_ptr<Sample>(Random&)>;

template <typename Kind>
std::unique_ptr<Sample> make(Random& random) {
  return std::make_unique<Kind>(random);
}

Maker texts(const std::string& ptype, Dravenholt::Data type,
            const std::vector<std::string>& text_columns, const std::string& count_column,
            const Texts::Make& make) {
  return [=](Random& random) {
    return std::make_unique<Texts>(random, ptype, type, text_columns, count_column, make);
  };
}

using Text = const Offset<String>*;

const std::vector<std::pair<std::string, Maker>> kMakers = {
    {"connection", make<Connection>},
    {"http", make<Http>},
    {"http-in", make<InboundHttp>},
    {"ftp", make<Ftp>},
    {"ldap", texts("ldap", Dravenholt::Data_LdapData, {"ldap.user", "ldap.message", "ldap.base"},
                   "ldap.resultCode",
                   [](FlatBufferBuilder& b, Text t, std::uint32_t count) {
                     return Dravenholt::CreateLdapData(b, t[0], t[1],
                                                       static_cast<std::uint16_t>(count), t[2])
                         .Union();
                   })},
    {"smb", texts("smb", Dravenholt::Data_SmbData,
                  {"smb.user", "smb.share", "smb.filename", "smb.action"}, "smb.filesize",
                  [](FlatBufferBuilder& b, Text t, std::uint32_t count) {
                    return Dravenholt::CreateSmbData(b, t[0], t[1], t[2], t[3], count).Union();
                  })},
    {"smtp", make<Smtp>},
    {"tds",
     texts("tds", Dravenholt::Data_TdsData, {"tds.user", "tds.database", "tds.app", "tds.sql"}, "",
           [](FlatBufferBuilder& b, Text t, std::uint32_t) {
             return Dravenholt::CreateTdsData(b, t[0], t[1], t[2], t[3]).Union();
           })},
    {"dce-rpc", texts("dce-rpc", Dravenholt::Data_DceRpcData,
                      {"dce.request_type", "dce.interface_uuid", "dce.interface_name", "dce.method",
                       "dce.arguments", "dce.raw_args"},
                      "dce.opnum",
                      [](FlatBufferBuilder& b, Text t, std::uint32_t count) {
                        return Dravenholt::CreateDceRpcData(b, t[0], t[1], t[2],
                                                            static_cast<std::int32_t>(count), t[3],
                                                            t[4], t[5])
                            .Union();
                      })},
    {"tn5250",
     texts("tn5250", Dravenholt::Data_Tn5250Data, {"tn5250.protocol", "tn5250.details"}, "",
           [](FlatBufferBuilder& b, Text t, std::uint32_t) {
             return Dravenholt::CreateTn5250Data(b, t[0], t[1]).Union();
           })},
    {"system-stats", make<Statistics>},
    {"20-pairs", [](Random& random) { return std::make_unique<Pairs>(random, 20); }},
};

Samples make_samples(std::size_t count, const Maker& maker) {
  Random random(2015);
  Samples made;
  for (std::size_t i = 0; i < count; i++)
    made.push_back(maker(random));
  return made;
}

}  // namespace

std::vector<std::string> kinds() {
  std::vector<std::string> names;
  for (const auto& maker : kMakers)
    names.push_back(maker.first);
  return names;
}

Samples samples(const std::string& kind, std::size_t count) {
  for (const auto& maker : kMakers)
    if (maker.first == kind)
      return make_samples(count, maker.second);
  return {};
}

std::string message(test::RecordBuilder& record, const std::string& agent) {
  FlatBufferBuilder builder(logging::writer::kInitialBufferBytes);
  logging::writer::convert_record(builder, agent, record.size(), record.fields(), record.vals());
  return std::string(reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize());
}

std::string agent_name(std::size_t number) {
  return "agent-" + std::to_string(number);
}

std::vector<std::string> messages(std::size_t agents) {
  const Samples records = samples("connection", 64);
  std::vector<std::string> made;
  for (std::size_t i = 0; i < agents; ++i)
    made.push_back(message(records[i % records.size()]->record(), agent_name(i)));
  return made;
}

Samples wide_samples(int columns, std::size_t count) {
  return make_samples(
      count, [columns](Random& random) { return std::make_unique<Connection>(random, columns); });
}

Samples pair_samples(int pairs, std::size_t count) {
  return make_samples(count,
                      [pairs](Random& random) { return std::make_unique<Pairs>(random, pairs); });
}

}  // namespace bench
