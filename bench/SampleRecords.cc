#include "SampleRecords.h"

#include <arpa/inet.h>
#include <sys/time.h>

#include <array>
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

/// What a payload is built of is at hand in the function.
using Payload = std::function<Offset<void>(FlatBufferBuilder&)>;

/// What every kind of record begins with.
struct Envelope {
  explicit Envelope(Random& random)
      : ts(1433419200.0 + number(random, 1000000) / 64.0), uid("C" + letters(random, 16, 17)) {}

  void finish(FlatBufferBuilder& builder, Offset<String> uid_text, Offset<String> agent,
              Dravenholt::Data type, Offset<void> payload) const {
    builder.Finish(
        Dravenholt::CreateNetworkEvent(builder, uid_text, ts, kMinutesWest, agent, type, payload));
  }

  double ts;
  std::string uid;
};

struct Ends {
  explicit Ends(Random& random)
      : orig_h(random),
        resp_h(random),
        orig_p(static_cast<std::uint16_t>(number(random, 65535))),
        resp_p(static_cast<std::uint16_t>(number(random, 65535))) {}

  Address orig_h;
  Address resp_h;
  std::uint16_t orig_p;
  std::uint16_t resp_p;
};

/// Adds the columns of a kind to a record.
using AddColumns = std::function<Payload(Random&, test::RecordBuilder&, const Ends&)>;
using Maker = std::function<std::unique_ptr<Sample>(Random&)>;

/// Begins with ptype, ts, uid and the id.* columns, as the scripts' protocol records do.
Maker protocol(const std::string& ptype, Dravenholt::Data type, const AddColumns& add) {
  return [=](Random& random) {
    auto sample = std::make_unique<Sample>();
    const Envelope envelope(random);
    const Ends ends(random);
    sample->record.text("ptype", ptype).time("ts", envelope.ts).text("uid", envelope.uid);
    sample->record.addr("id.orig_h", ends.orig_h.text).port("id.orig_p", ends.orig_p);
    sample->record.addr("id.resp_h", ends.resp_h.text).port("id.resp_p", ends.resp_p);
    const Payload payload = add(random, sample->record, ends);
    sample->build = [=](FlatBufferBuilder& builder) {
      const Offset<String> agent = builder.CreateString(kAgentId);
      builder.CreateString(ptype);
      const Offset<String> uid_text = builder.CreateString(envelope.uid);
      envelope.finish(builder, uid_text, agent, type, payload(builder));
    };
    return sample;
  };
}

/// With others behind its own columns if `columns` says so.
Maker connection(int columns = 22) {
  const AddColumns add = [columns](Random& random, test::RecordBuilder& record, const Ends& ends) {
    const std::string service_name = one_of(random, {"http", "ssl", "dns", "ssh"});
    const std::string state = one_of(random, {"SF", "S0", "REJ", "RSTO"});
    const std::string user = letters(random, 3, 10);
    const std::string program = letters(random, 4, 20);
    const double duration = number(random, 100000) / 64.0;
    const bool tcp = number(random, 3) > 0;
    const bool local_orig = number(random, 1) == 1;
    std::array<std::uint32_t, 7> counts;
    for (std::uint32_t& count : counts)
      count = number(random, 10000000);
    record.enumerator("proto", tcp ? "tcp" : "udp").text("service", service_name);
    record.interval("duration", duration).count("orig_bytes", counts[0]);
    record.count("resp_bytes", counts[1]).text("conn_state", state);
    record.boolean("local_orig", local_orig).boolean("local_resp", !local_orig);
    record.count("missed_bytes", counts[2]).count("orig_pkts", counts[3]);
    record.count("orig_ip_bytes", counts[4]).count("resp_pkts", counts[5]);
    record.count("resp_ip_bytes", counts[6]).text("username", user).text("process", program);
    for (int i = record.size(); i < columns; i++)
      record.count("more." + std::to_string(i), number(random, 1000));
    return [=](FlatBufferBuilder& builder) {
      const auto service = builder.CreateString(service_name);
      const auto conn_state = builder.CreateString(state);
      const auto username = builder.CreateString(user);
      const auto process = builder.CreateString(program);
      const auto orig = builder.CreateVector(ends.orig_h.bytes, ends.orig_h.length);
      const auto orig_name = builder.CreateString("", 0);
      const auto resp = builder.CreateVector(ends.resp_h.bytes, ends.resp_h.length);
      const auto resp_name = builder.CreateString("", 0);
      const auto history = builder.CreateString("", 0);
      return Dravenholt::CreateGeneralData(
                 builder, orig, orig_name, ends.orig_p, resp, resp_name, ends.resp_p,
                 tcp ? Dravenholt::Transport_tcp : Dravenholt::Transport_udp,
                 static_cast<std::uint64_t>(duration * 1000.0), counts[0], counts[1], conn_state,
                 local_orig, !local_orig, counts[2], history, counts[3], counts[4], counts[5],
                 counts[6], username, process, service)
          .Union();
    };
  };
  return protocol("general", Dravenholt::Data_GeneralData, add);
}

Payload add_inbound_http(Random& random, test::RecordBuilder& record, const Ends&) {
  const std::string url = "/" + letters(random, 5, 120);
  const std::string name = letters(random, 3, 10);
  record.vec("extra_fields", {"VERB", "URL", "USER", "AGENT"});
  record.vec("extra_vals", {"GET", url, name, letters(random, 10, 40)});
  return [=](FlatBufferBuilder& builder) {
    const auto method = builder.CreateString("GET", 3);
    const auto uri = builder.CreateString(url);
    const auto user = builder.CreateString(name);
    return Dravenholt::CreateHttpData(builder, user, method, 0, uri).Union();
  };
}

/// A column of texts between two lengths; with `elements`, of sets of so many texts, which are one
/// text in the message.
struct TextColumn {
  std::string name;
  std::uint32_t least = 4;
  std::uint32_t most = 40;
  std::size_t elements = 0;
};

struct CountColumn {
  std::string name;
  std::uint32_t most = 60000;
};

/// The payload of texts and counts, both in the order of their columns.
using Texts = const Offset<String>*;
using Counts = const std::uint32_t*;
using MakePayload = Offset<void> (*)(FlatBufferBuilder&, Texts, Counts);

/// The kinds whose columns are texts and counts behind them.
Maker texts_and_counts(const std::string& ptype, Dravenholt::Data type,
                       const std::vector<TextColumn>& text_columns,
                       const std::vector<CountColumn>& count_columns, MakePayload make) {
  const AddColumns add = [=](Random& random, test::RecordBuilder& record, const Ends&) {
    std::vector<std::string> texts;
    std::vector<std::uint32_t> counts;
    for (const TextColumn& column : text_columns) {
      texts.push_back(letters(random, column.least, column.most));
      std::vector<std::string> elements = {texts.back()};
      while (elements.size() < column.elements) {
        elements.push_back(letters(random, column.least, column.most));
        texts.back() += "," + elements.back();
      }
      if (column.elements > 0)
        record.set(column.name, elements);
      else
        record.text(column.name, texts.back());
    }
    for (const CountColumn& column : count_columns) {
      counts.push_back(number(random, column.most));
      record.count(column.name, counts.back());
    }
    return [=](FlatBufferBuilder& builder) {
      Offset<String> made[8];
      for (std::size_t i = 0; i < texts.size(); i++)
        made[i] = builder.CreateString(texts[i]);
      return make(builder, made, counts.data());
    };
  };
  return protocol(ptype, type, add);
}

std::unique_ptr<Sample> statistics(Random& random) {
  auto sample = std::make_unique<Sample>();
  const Envelope envelope(random);
  std::array<double, 4> reals;
  for (double& real : reals)
    real = number(random, 100000) / 64.0;
  std::array<std::int32_t, 5> counts;
  for (std::int32_t& count : counts)
    count = static_cast<std::int32_t>(1 + number(random, 100000));
  test::RecordBuilder& record = sample->record;
  record.real("cpu_usage", reals[0]).integer("priority", counts[0]);
  record.count("ph_mem_total", counts[1]).count("ph_mem_used", counts[2]);
  record.count("virt_mem_total", counts[3]).count("virt_mem_used", counts[4]);
  record.real("hdd_volume", reals[1]).real("hdd_used", reals[2]).real("hdd_avail", reals[3]);
  // Behind cpu_usage, which sets the current time: so the message can be compared.
  record.time("ts", envelope.ts);
  sample->build = [=](FlatBufferBuilder& builder) {
    const auto agent = builder.CreateString(kAgentId);
    const auto fixed_uid = builder.CreateString("000000000000000000", 18);
    const auto payload =
        Dravenholt::CreateSystemStatsData(builder, reals[0], counts[0], counts[1], counts[2],
                                          counts[3], counts[4], reals[1], reals[2], reals[3]);
    envelope.finish(builder, fixed_uid, agent, Dravenholt::Data_SystemStatsData, payload.Union());
  };
  return sample;
}

std::unique_ptr<Sample> pairs(Random& random, int count) {
  auto sample = std::make_unique<Sample>();
  const Envelope envelope(random);
  std::vector<std::string> keys;
  std::vector<std::string> vals;
  for (int i = 0; i < count; i++) {
    keys.push_back(letters(random, 4, 16));
    vals.push_back(letters(random, 1, 30));
  }
  sample->record.time("ts", envelope.ts).text("uid", envelope.uid);
  sample->record.vec("extra_fields", keys).vec("extra_vals", vals);
  sample->build = [=](FlatBufferBuilder& builder) {
    const auto agent = builder.CreateString(kAgentId);
    const auto uid_text = builder.CreateString(envelope.uid);
    std::vector<Offset<Dravenholt::MapEntry>> entries;
    entries.reserve(keys.size());
    for (std::size_t i = 0; i < keys.size(); i++) {
      const auto key = builder.CreateString(keys[i]);
      const auto value = builder.CreateString(vals[i]);
      entries.push_back(Dravenholt::CreateMapEntry(builder, key, value));
    }
    const auto fields = builder.CreateVector(entries);
    const auto payload = Dravenholt::CreateGenericProtocolData(builder, 0, fields);
    envelope.finish(builder, uid_text, agent, Dravenholt::Data_GenericProtocolData,
                    payload.Union());
  };
  return sample;
}

using Builder = FlatBufferBuilder;

std::uint16_t narrow(std::uint32_t count) {
  return static_cast<std::uint16_t>(count);
}

const std::vector<std::pair<std::string, Maker>> kMakers = {
    {"connection", connection()},
    {"http",
     texts_and_counts(
         "http", Dravenholt::Data_HttpData,
         {{"http.user", 3, 10}, {"http.method", 3, 4}, {"http.host", 8, 30}, {"http.uri", 6, 121}},
         {{"http.status_code", 500},
          {"http.request_body_len", 5000},
          {"http.response_body_len", 5000000}},
         [](Builder& b, Texts t, Counts n) {
           return Dravenholt::CreateHttpData(b, t[0], t[1], t[2], t[3], narrow(n[0]), n[1], n[2])
               .Union();
         })},
    {"http-in", protocol("http-in", Dravenholt::Data_HttpData, add_inbound_http)},
    {"ftp", texts_and_counts(
                "ftp", Dravenholt::Data_FtpData,
                {{"ftp.user", 3, 10}, {"ftp.command", 4, 4}, {"ftp.arg", 16, 66}},
                {{"ftp.reply_code", 500}, {"ftp.file_size", 4000000000u}},
                [](Builder& b, Texts t, Counts n) {
                  return Dravenholt::CreateFtpData(b, t[0], t[1], narrow(n[0]), t[2], n[1]).Union();
                })},
    {"ldap", texts_and_counts(
                 "ldap", Dravenholt::Data_LdapData,
                 {{"ldap.user"}, {"ldap.message"}, {"ldap.base"}}, {{"ldap.resultCode"}},
                 [](Builder& b, Texts t, Counts n) {
                   return Dravenholt::CreateLdapData(b, t[0], t[1], narrow(n[0]), t[2]).Union();
                 })},
    {"smb", texts_and_counts(
                "smb", Dravenholt::Data_SmbData,
                {{"smb.user"}, {"smb.share"}, {"smb.filename"}, {"smb.action"}}, {{"smb.filesize"}},
                [](Builder& b, Texts t, Counts n) {
                  return Dravenholt::CreateSmbData(b, t[0], t[1], t[2], t[3], n[0]).Union();
                })},
    {"smtp",
     texts_and_counts("smtp", Dravenholt::Data_SmtpData,
                      {{"smtp.from", 10, 25}, {"smtp.to", 10, 25, 3}, {"smtp.subject", 5, 60}},
                      {{"smtp.reqSize", 100000}},
                      [](Builder& b, Texts t, Counts n) {
                        return Dravenholt::CreateSmtpData(b, t[0], t[1], t[2], n[0]).Union();
                      })},
    {"tds", texts_and_counts("tds", Dravenholt::Data_TdsData,
                             {{"tds.user"}, {"tds.database"}, {"tds.app"}, {"tds.sql"}}, {},
                             [](Builder& b, Texts t, Counts) {
                               return Dravenholt::CreateTdsData(b, t[0], t[1], t[2], t[3]).Union();
                             })},
    {"dce-rpc", texts_and_counts("dce-rpc", Dravenholt::Data_DceRpcData,
                                 {{"dce.request_type"},
                                  {"dce.interface_uuid"},
                                  {"dce.interface_name"},
                                  {"dce.method"},
                                  {"dce.arguments"},
                                  {"dce.raw_args"}},
                                 {{"dce.opnum"}},
                                 [](Builder& b, Texts t, Counts n) {
                                   return Dravenholt::CreateDceRpcData(
                                              b, t[0], t[1], t[2], static_cast<std::int32_t>(n[0]),
                                              t[3], t[4], t[5])
                                       .Union();
                                 })},
    {"tn5250", texts_and_counts("tn5250", Dravenholt::Data_Tn5250Data,
                                {{"tn5250.protocol"}, {"tn5250.details"}}, {},
                                [](Builder& b, Texts t, Counts) {
                                  return Dravenholt::CreateTn5250Data(b, t[0], t[1]).Union();
                                })},
    {"system-stats", statistics},
    {"20-pairs", [](Random& random) { return pairs(random, 20); }},
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
    made.push_back(message(records[i % records.size()]->record, agent_name(i)));
  return made;
}

Samples wide_samples(int columns, std::size_t count) {
  return make_samples(count, connection(columns));
}

Samples pair_samples(int count_of_pairs, std::size_t count) {
  return make_samples(count, [=](Random& random) { return pairs(random, count_of_pairs); });
}

}  // namespace bench
