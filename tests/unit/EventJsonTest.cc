// The readable forms of events: every payload type, every kind of value, and bytes that are no
// text.
#include "EventJson.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <flatbuffers/flatbuffers.h>

#include "aggregator_generated.h"

namespace {

using namespace zmqwriter;
using flatbuffers::FlatBufferBuilder;
using flatbuffers::Offset;
using testing::HasSubstr;
using testing::StartsWith;
namespace schema = Dravenholt;

using Payload = std::function<Offset<void>(FlatBufferBuilder&)>;

std::string finished(const FlatBufferBuilder& builder) {
  return std::string(reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize());
}

/// An event with these payload, the rest fixed.
std::string event(schema::Data type, const Payload& payload) {
  FlatBufferBuilder builder;
  const auto agent = builder.CreateString("agent-7");
  const auto uid = builder.CreateString("C1");
  const Offset<void> data = payload ? payload(builder) : Offset<void>();
  builder.Finish(
      schema::CreateNetworkEvent(builder, uid, 1300475167.096535, -60, agent, type, data));
  return finished(builder);
}

std::string json(const std::string& message) {
  std::string error;
  const std::string text = event_to_json(message.data(), message.size(), &error);
  EXPECT_EQ(error, "");
  return text;
}

/// The `data` part of an event's JSON form.
std::string data_json(schema::Data type, const Payload& payload) {
  const std::string text = json(event(type, payload));
  const std::string start = R"({"uid":"C1","ts":1300475167.096535,"tz_minutes_west":-60,)"
                            R"("agent_id":"agent-7","data_type":")" +
                            std::string(schema::EnumNameData(type)) + R"(","data":)";
  EXPECT_THAT(text, StartsWith(start));
  return text.substr(start.size(), text.size() - start.size() - 1);
}

std::string json_string(const std::string& text, JsonBytes bytes = JsonBytes::kSurrogate) {
  std::string out;
  append_json_string(&out, text.data(), text.size(), bytes);
  return out;
}

TEST(EventJsonTest, GeneralDataGivesEveryField) {
  const auto payload = [](FlatBufferBuilder& b) {
    const std::vector<std::int8_t> v4 = {static_cast<std::int8_t>(192), 0, 2, 1};
    std::vector<std::int8_t> v6(16, 0);
    v6[0] = 0x20;
    v6[1] = 1;
    v6[2] = 0x0d;
    v6[3] = static_cast<std::int8_t>(0xb8);
    v6[15] = 1;
    const auto orig_h = b.CreateVector(v4);
    const auto orig_name = b.CreateString("");
    const auto resp_h = b.CreateVector(v6);
    const auto state = b.CreateString("SF");
    const auto user = b.CreateString("bob");
    const auto process = b.CreateString("curl");
    const auto service = b.CreateString("http");
    return schema::CreateGeneralData(b, orig_h, orig_name, 65535, resp_h, 0, 443,
                                     schema::Transport_tcp,
                                     std::numeric_limits<std::uint64_t>::max(), 4294967295u, 2,
                                     state, 1, -1, 3, 0, 4, 5, 6, 7, user, process, service)
        .Union();
  };
  EXPECT_EQ(data_json(schema::Data_GeneralData, payload),
            R"({"orig_h":"192.0.2.1","orig_name":"","orig_p":65535,"resp_h":"2001:db8::1",)"
            R"("resp_name":null,"resp_p":443,"proto":"tcp","duration":18446744073709551615,)"
            R"("orig_bytes":4294967295,"resp_bytes":2,"conn_state":"SF","local_orig":1,)"
            R"("local_resp":-1,"missed_bytes":3,"history":null,"orig_pkts":4,"orig_ip_bytes":5,)"
            R"("resp_pkts":6,"resp_ip_bytes":7,"username":"bob","process":"curl",)"
            R"("service":"http"})");
}

TEST(EventJsonTest, FieldsThatTheMessageLacksAreNullOrZero) {
  const auto payload = [](FlatBufferBuilder& b) { return schema::CreateGeneralData(b).Union(); };
  EXPECT_EQ(data_json(schema::Data_GeneralData, payload),
            R"({"orig_h":null,"orig_name":null,"orig_p":0,"resp_h":null,"resp_name":null,)"
            R"("resp_p":0,"proto":"unknown","duration":0,"orig_bytes":0,"resp_bytes":0,)"
            R"("conn_state":null,"local_orig":0,"local_resp":0,"missed_bytes":0,"history":null,)"
            R"("orig_pkts":0,"orig_ip_bytes":0,"resp_pkts":0,"resp_ip_bytes":0,"username":null,)"
            R"("process":null,"service":null})");
}

TEST(EventJsonTest, EmptyEventGivesEveryEnvelopeField) {
  FlatBufferBuilder builder;
  builder.Finish(schema::CreateNetworkEvent(builder));
  EXPECT_EQ(json(finished(builder)),
            R"({"uid":null,"ts":0.0,"tz_minutes_west":0,"agent_id":null,"data_type":"NONE",)"
            R"("data":null})");
}

TEST(EventJsonTest, EachOtherPayloadGivesEveryField) {
  using Builder = FlatBufferBuilder;
  const std::tuple<schema::Data, Payload, std::string> cases[] = {
      {schema::Data_FtpData,
       [](Builder& b) { return schema::CreateFtpDataDirect(b, "u", "RETR", 226, "a", 77).Union(); },
       R"({"user":"u","command":"RETR","reply_code":226,"arg":"a","file_size":77})"},
      {schema::Data_HttpData,
       [](Builder& b) {
         return schema::CreateHttpDataDirect(b, "u", "GET", "h", "/", 200, 1, 2).Union();
       },
       R"({"user":"u","method":"GET","host":"h","uri":"/","status_code":200,)"
       R"("request_body_len":1,"response_body_len":2})"},
      {schema::Data_LdapData,
       [](Builder& b) { return schema::CreateLdapDataDirect(b, "u", "m", 49, "dc=x").Union(); },
       R"({"user":"u","message":"m","result_code":49,"base":"dc=x"})"},
      {schema::Data_SmbData,
       [](Builder& b) { return schema::CreateSmbDataDirect(b, "u", "s", "f", "open", 9).Union(); },
       R"({"user":"u","share":"s","filename":"f","action":"open","filesize":9})"},
      {schema::Data_SmtpData,
       [](Builder& b) { return schema::CreateSmtpDataDirect(b, "f", "a,b", "s", 5).Union(); },
       R"({"from":"f","to":"a,b","subject":"s","req_size":5})"},
      {schema::Data_TdsData,
       [](Builder& b) { return schema::CreateTdsDataDirect(b, "u", "d", "a", "s 1").Union(); },
       R"({"user":"u","database":"d","app":"a","sql":"s 1"})"},
      {schema::Data_DceRpcData,
       [](Builder& b) {
         return schema::CreateDceRpcDataDirect(b, "r", "i", "n", -5, "m", "a", "w").Union();
       },
       R"({"request_type":"r","interface_uuid":"i","interface_name":"n","opnum":-5,"method":"m",)"
       R"("arguments":"a","raw_args":"w"})"},
      {schema::Data_Tn5250Data,
       [](Builder& b) { return schema::CreateTn5250DataDirect(b, "p", "d").Union(); },
       R"({"protocol":"p","details":"d"})"}};
  for (const auto& [type, payload, expected] : cases)
    EXPECT_EQ(data_json(type, payload), expected);
}

TEST(EventJsonTest, GenericPairsKeepTheirOrderAndRepeats) {
  EXPECT_EQ(data_json(schema::Data_GenericProtocolData,
                      [](FlatBufferBuilder& b) {
                        const std::vector<Offset<schema::MapEntry>> pairs = {
                            schema::CreateMapEntryDirect(b, "z", "1"),
                            schema::CreateMapEntryDirect(b, "a", nullptr),
                            schema::CreateMapEntryDirect(b, "z", "2")};
                        return schema::CreateGenericProtocolDataDirect(b, "dns", &pairs).Union();
                      }),
            R"({"ptype":"dns","fields":[{"key":"z","value":"1"},{"key":"a","value":null},)"
            R"({"key":"z","value":"2"}]})");
}

TEST(EventJsonTest, SystemStatsDataGivesEveryField) {
  EXPECT_EQ(
      data_json(schema::Data_SystemStatsData,
                [](FlatBufferBuilder& b) {
                  return schema::CreateSystemStatsData(b, 0.1 + 0.2, -3, 16384, 8192, 1, 2,
                                                       3.814697265625, 1e300, -0.0)
                      .Union();
                }),
      R"({"cpu_usage":0.30000000000000004,"priority":-3,"ph_mem_total":16384,"ph_mem_used":8192,)"
      R"("virt_mem_total":1,"virt_mem_used":2,"hdd_volume":3.814697265625,"hdd_used":1e+300,)"
      R"("hdd_avail":0.0})");
}

TEST(EventJsonTest, NumbersThatJsonLacksAreStrings) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  EXPECT_THAT(
      data_json(schema::Data_SystemStatsData,
                [](FlatBufferBuilder& b) {
                  return schema::CreateSystemStatsData(b, std::numeric_limits<double>::quiet_NaN(),
                                                       0, 0, 0, 0, 0, kInfinity, -kInfinity)
                      .Union();
                }),
      testing::AllOf(HasSubstr(R"("cpu_usage":"NaN")"), HasSubstr(R"("hdd_volume":"Infinity")"),
                     HasSubstr(R"("hdd_used":"-Infinity")")));
}

TEST(EventJsonTest, AddressesOfOtherLengthsAreHexadecimal) {
  const auto with_orig_h = [](std::vector<std::int8_t> bytes) {
    return data_json(schema::Data_GeneralData, [&](FlatBufferBuilder& b) {
      return schema::CreateGeneralDataDirect(b, &bytes).Union();
    });
  };
  EXPECT_THAT(with_orig_h({}), HasSubstr(R"("orig_h":"")"));
  EXPECT_THAT(with_orig_h({10, 0, 0}), HasSubstr(R"("orig_h":"0x0a0000")"));
  EXPECT_THAT(with_orig_h({-1, 0, 0, 0, 1}), HasSubstr(R"("orig_h":"0xff00000001")"));
}

TEST(EventJsonTest, EnumeratorWithoutNameIsItsNumber) {
  for (const int number : {4, 127, -1}) {
    EXPECT_THAT(data_json(schema::Data_GeneralData,
                          [&](FlatBufferBuilder& b) {
                            schema::GeneralDataBuilder table(b);
                            table.add_proto(static_cast<schema::Transport>(number));
                            return table.Finish().Union();
                          }),
                HasSubstr("\"proto\":" + std::to_string(number) + ","));
  }
}

TEST(EventJsonTest, PayloadThatIsMissingUnknownOrOfTypeNoneIsNull) {
  EXPECT_EQ(data_json(schema::Data_GenericProtocolData, nullptr), "null");
  const Payload payload = [](FlatBufferBuilder& b) {
    return schema::CreateTn5250DataDirect(b, "p", "d").Union();
  };
  EXPECT_THAT(json(event(schema::Data_NONE, payload)), HasSubstr(R"("NONE","data":null})"));
  const std::string message = event(static_cast<schema::Data>(200), payload);
  EXPECT_THAT(json(message), HasSubstr(R"("data_type":200,"data":null})"));
  const EventMessage parsed(message.data(), message.size());
  EXPECT_EQ(parsed.PayloadType(), "200");
  EXPECT_THAT(parsed.Text(), testing::EndsWith("200"));
}

TEST(EventJsonTest, StringsAreEscapedAsJsonDemands) {
  EXPECT_EQ(json_string(""), R"("")");
  EXPECT_EQ(json_string("a\"b\\c/d"), R"("a\"b\\c/d")");
  EXPECT_EQ(json_string("\n\r\t\b\x1f\x7f"), R"("\n\r\t\u0008\u001f\u007f")");
  EXPECT_EQ(json_string(std::string("a\0b", 3)), R"("a\u0000b")");
}

TEST(EventJsonTest, ValidUtf8IsKeptAsItIs) {
  for (const std::string text :
       {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf",
        "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf", "\xe2\x82\xac"})
    EXPECT_EQ(json_string(text), "\"" + text + "\"");
}

TEST(EventJsonTest, BytesThatAreNoUtf8BecomeLoneSurrogates) {
  EXPECT_EQ(json_string("\x80"), R"("\udc80")");
  EXPECT_EQ(json_string("a\xff z"), R"("a\udcff z")");
  EXPECT_EQ(json_string("\xc0\x80"), R"("\udcc0\udc80")") << "overlong, two bytes";
  EXPECT_EQ(json_string("\xc1\xbf"), R"("\udcc1\udcbf")") << "overlong, two bytes";
  EXPECT_EQ(json_string("\xe0\x9f\xbf"), R"("\udce0\udc9f\udcbf")") << "overlong, three bytes";
  EXPECT_EQ(json_string("\xf0\x8f\xbf\xbf"), R"("\udcf0\udc8f\udcbf\udcbf")") << "overlong, four";
  EXPECT_EQ(json_string("\xed\xa0\x80"), R"("\udced\udca0\udc80")") << "a surrogate";
  EXPECT_EQ(json_string("\xf4\x90\x80\x80"), R"("\udcf4\udc90\udc80\udc80")") << "above U+10FFFF";
  EXPECT_EQ(json_string("\xf5\x80\x80\x80"), R"("\udcf5\udc80\udc80\udc80")");
  EXPECT_EQ(json_string("\xe2\x82"), R"("\udce2\udc82")") << "cut";
  EXPECT_EQ(json_string("\xe2\x82z"), R"("\udce2\udc82z")") << "interrupted";
  EXPECT_EQ(json_string("\xc3"), R"("\udcc3")") << "cut";
}

TEST(EventJsonTest, BytesThatStrictReadersRefuseAreReplacedOrGivenInBase64) {
  const std::string euro = "\xe2\x82\xac", replaced = "\xef\xbf\xbd";
  for (const auto& [text, replace, base64] :
       std::vector<std::tuple<std::string, std::string, std::string>>{
           {"", R"("")", R"("")"},
           {euro + "\n", '"' + euro + R"(\n")", '"' + euro + R"(\n")"},
           {std::string(1, '\0'), '"' + replaced + '"', R"({"base64":"AA=="})"},
           {"\xfb\xff", '"' + replaced + replaced + '"', R"({"base64":"+/8="})"},
           {"a\xff\xe2", "\"a" + replaced + replaced + '"', R"({"base64":"Yf/i"})"},
           {"\"\xc3z", R"("\")" + replaced + "z\"", R"({"base64":"IsN6"})"},
           {"f\xc0oo", "\"f" + replaced + "oo\"", R"({"base64":"ZsBvbw=="})"}}) {
    EXPECT_EQ(json_string(text, JsonBytes::kReplace), replace);
    EXPECT_EQ(json_string(text, JsonBytes::kBase64), base64);
  }
}

TEST(EventJsonTest, TextFormIsOneReadableLine) {
  const std::string message = event(schema::Data_FtpData, [](FlatBufferBuilder& b) {
    return schema::CreateFtpDataDirect(b, "-", nullptr, 226, "a b=\"c\"\n", 77).Union();
  });
  EXPECT_EQ(EventMessage(message.data(), message.size()).Text(),
            "2011-03-18T19:06:07.096535Z agent-7 C1 FtpData user=\"-\" command=- reply_code=226 "
            "arg=\"a b=\\\"c\\\"\\n\" file_size=77");
  const std::string escaped = event(schema::Data_Tn5250Data, [](FlatBufferBuilder& b) {
    return schema::CreateTn5250DataDirect(b, "\xc2\x9b\x33m", "\xe2\x80\xa8\xc3\xa9\xc2\x85")
        .Union();
  });
  EXPECT_THAT(EventMessage(escaped.data(), escaped.size()).Text(),
              testing::EndsWith("protocol=\"\\u009b3m\" details=\"\\u2028\xc3\xa9\\u0085\""))
      << "what a terminal would act on";
  for (const double ts : {-1.0, 1e300, std::numeric_limits<double>::quiet_NaN()}) {
    FlatBufferBuilder builder;
    builder.Finish(schema::CreateNetworkEvent(builder, 0, ts));
    EXPECT_THAT(EventMessage(builder.GetBufferPointer(), builder.GetSize()).Text(),
                testing::EndsWith(" - - NONE"))
        << "a time that is no date";
  }
}

TEST(EventJsonTest, AgentAndNumberOfThePayloadAreGiven) {
  const std::string message = event(schema::Data_FtpData, nullptr);
  const EventMessage parsed(message.data(), message.size());
  EXPECT_EQ(parsed.AgentId(), "agent-7");
  EXPECT_EQ(parsed.PayloadNumber(), 2);
  FlatBufferBuilder builder;
  builder.Finish(schema::CreateNetworkEvent(builder));
  EXPECT_EQ(EventMessage(builder.GetBufferPointer(), builder.GetSize()).AgentId(), "");
}

/// A generic event with so many references to one pair.
std::string shared_pairs(std::size_t pairs, std::size_t value) {
  return event(schema::Data_GenericProtocolData, [=](FlatBufferBuilder& b) {
    const auto pair = schema::CreateMapEntry(b, 0, b.CreateString(std::string(value, 'x')));
    const std::vector<Offset<schema::MapEntry>> all(pairs, pair);
    return schema::CreateGenericProtocolData(b, 0, b.CreateVector(all)).Union();
  });
}

TEST(EventJsonTest, SmallMessageThatWouldPrintAsGigabytesIsRefused) {
  const std::string message = shared_pairs(20000, 100000);
  std::string error;
  EXPECT_EQ(event_to_json(message.data(), message.size(), &error), "");
  EXPECT_EQ(error, "these " + std::to_string(message.size()) + " bytes are no event message");
}

TEST(EventJsonTest, TextsMayBeSharedWithinReason) {
  constexpr std::size_t kValue = 1000;
  const std::size_t overhead = shared_pairs(0, kValue).size();
  // Each further pair takes 4 bytes of the message, and 8 may be printed for them.
  const std::size_t most = ((std::size_t{1} << 20) + 2 * overhead) / (kValue - 8);
  std::string error;
  const std::string good = shared_pairs(most - 1, kValue);
  EXPECT_NE(event_to_json(good.data(), good.size(), &error), "") << error;
  const std::string bad = shared_pairs(most + 2, kValue);
  EXPECT_EQ(event_to_json(bad.data(), bad.size(), &error), "");
}

TEST(EventJsonTest, LargeEventThatSharesNothingIsRead) {
  const std::string message = event(schema::Data_GenericProtocolData, [](FlatBufferBuilder& b) {
    std::vector<Offset<schema::MapEntry>> pairs;
    for (int i = 0; i < 3000; ++i)
      pairs.push_back(schema::CreateMapEntryDirect(b, "key", std::string(1000, 'x').c_str()));
    return schema::CreateGenericProtocolDataDirect(b, "p", &pairs).Union();
  });
  EXPECT_GT(json(message).size(), 3000000u);
}

TEST(EventJsonTest, EventOfMoreThanAMillionPairsIsRead) {
  const std::string message = event(schema::Data_GenericProtocolData, [](FlatBufferBuilder& b) {
    const std::vector<Offset<schema::MapEntry>> pairs(1000001, schema::CreateMapEntry(b));
    return schema::CreateGenericProtocolDataDirect(b, "p", &pairs).Union();
  });
  EXPECT_TRUE(EventMessage(message.data(), message.size()).valid());
}

TEST(EventJsonTest, MisalignedMessagesAreRead) {
  const std::string message = event(schema::Data_SystemStatsData, [](FlatBufferBuilder& b) {
    return schema::CreateSystemStatsData(b, 1.5).Union();
  });
  for (std::size_t shift = 0; shift < 8; ++shift) {
    const std::string shifted = std::string(shift, 'x') + message;
    std::string error;
    EXPECT_THAT(event_to_json(shifted.data() + shift, message.size(), &error),
                HasSubstr("\"cpu_usage\":1.5"));
  }
}

TEST(EventJsonTest, WhatIsNoEventIsNamed) {
  const auto error = [](const std::string& message) {
    std::string text;
    EXPECT_EQ(event_to_json(message.data(), message.size(), &text), "");
    return text;
  };
  EXPECT_EQ(error(""), "empty message");
  EXPECT_EQ(error("x"), "these 1 bytes are no event message");
  EXPECT_EQ(error("this is no event"), "these 16 bytes are no event message");
}

TEST(EventJsonTest, FlippedBitsAndTruncationsAreRefusedOrReadWithoutAnyHarm) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::string whole = event(schema::Data_GeneralData, [](FlatBufferBuilder& b) {
    const std::vector<std::int8_t> address(16, 1);
    return schema::CreateGeneralDataDirect(b, &address, "", 1, &address, "", 2,
                                           schema::Transport_udp, 3, 4, 5, "SF")
        .Union();
  });
  for (int round = 0; round < 5000; ++round) {
    std::string damaged = whole;
    for (int flips = 1 + round % 4; flips > 0; --flips)
      damaged[random() % damaged.size()] ^= static_cast<char>(1 << random() % 8);
    if (round % 8 == 0)
      damaged.resize(random() % damaged.size());
    // Exactly as long as the message, so that a sanitizer sees a byte read too many.
    const std::vector<char> bytes(damaged.begin(), damaged.end());
    std::string error;
    const std::string text = event_to_json(bytes.data(), bytes.size(), &error);
    ASSERT_NE(text.empty(), error.empty());
    if (error.empty())
      EventMessage(bytes.data(), bytes.size()).Text();
  }
}

}  // namespace
