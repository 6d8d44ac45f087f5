// What check makes of a configuration: the same as the worker, and a finding for each oddity.
#include <sys/stat.h>
#include <sys/un.h>
#include <zmq.h>

#include <algorithm>
#include <memory>
#include <random>

#include "Configuration.h"
#include "FakeDisk.h"
#include "SettingsFile.h"
#include "TempDir.h"
#include "Text.h"
#include "WorkerFixture.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

using namespace zmqwriter;

const char kGoodKey[] = "0F1E2D3C4B5A69788796A5B4C3D2E1F00F1E2D3C4B5A69788796A5B4C3D2E1F0";

/// A worker at hand, as its tests have it, and check beside it.
class CheckConfiguration : public test::WorkerFixture {
 protected:
  CheckConfiguration() {
    disk.blocks = 1u << 28;  // 1 TB
    options.settings_file = "settings";
    for (const char* name : {"zmq_primary_server", "zmq_public_key", "zmq_secondary_server",
                             "zmq_agent_id", "set_separator", "empty_field", "unset_field"})
      constants[name] = "";
    constants["set_separator"] = ",";
    constants["empty_field"] = "(empty)";
    constants["unset_field"] = "-";
  }
  ~CheckConfiguration() override { settings = nullptr; }

  void set(const std::string& lines) {
    test::write_file(dir.file("settings"), lines);
    file = std::make_unique<SettingsFile>(dir.file("settings"));
    settings = file.get();
  }

  /// As with --set, once the host has done its part.
  void redef(const std::string& name, const std::string& value) {
    options.redefs.push_back("LogZMQ::" + name + "=" + value);
    if (!value.empty())
      constants[name] = value;
  }

  Configuration look() const { return Configuration(options, constants); }

  std::vector<std::string> uris() const {
    std::vector<std::string> result;
    const Configuration configuration = look();
    for (const Endpoint& endpoint : configuration.endpoints())
      result.push_back(endpoint.uri);
    return result;
  }

  /// "error server-missing", ...
  static std::vector<std::string> named(const Findings& findings) {
    std::vector<std::string> names;
    for (const Finding& finding : findings)
      names.push_back((finding.severity == Severity::kError     ? "error "
                       : finding.severity == Severity::kWarning ? "warning "
                                                                : "note ") +
                      finding.id);
    return names;
  }

  std::vector<std::string> endpoint_findings() {
    findings.clear();
    look().CheckEndpoints(&findings);
    return named(findings);
  }

  std::vector<std::string> findings_of(const std::string& primary) {
    set("zmq.server = " + primary + "\n");
    return endpoint_findings();
  }

  std::vector<std::string> name_findings(const std::string& lines) {
    set(lines);
    findings.clear();
    look().CheckNames(&findings);
    return named(findings);
  }

  std::vector<std::string> key_findings(const std::string& key, bool accepted = true) {
    set("zmq.public_key = " + key + "\n");
    findings.clear();
    look().CheckKey(accepted, &findings);
    return named(findings);
  }

  std::vector<std::string> disk_findings(const std::string& lines) {
    set(lines);
    findings.clear();
    report = look().CheckDisk(&findings);
    return named(findings);
  }

  std::string text() const { return findings.empty() ? "" : findings[0].text; }

  std::string source_of(const std::string& name) const {
    const Configuration configuration = look();
    switch (configuration.setting(name).place) {
      case SettingOrigin::kSettingsFile:
        return "settings file";
      case SettingOrigin::kScriptConstant:
        return "script constant";
      case SettingOrigin::kNowhere:
        return "default";
    }
    return "";
  }

  /// Starts a worker with the same configuration and lets it connect to every server.
  void start_worker() {
    worker = new Worker();
    worker->Init(constants["zmq_primary_server"], constants["zmq_public_key"],
                 constants["zmq_secondary_server"]);
    worker->context = zmq_ctx_new();
    worker->socket = worker->Connect(worker->server);
    for (const std::string& secondary : worker->secondary_servers)
      zmq_close(worker->Connect(secondary));
    drive();
  }

  std::vector<std::string> endpoints_of_worker() const {
    std::vector<std::string> result;
    for (std::string line : log.starting_with("connect s")) {
      line = line.substr(line.find(' ', std::string("connect ").size()) + 1);
      result.push_back(line.substr(0, line.rfind(' ')));
    }
    return result;
  }

  std::string key_of_worker() const {
    for (const auto& option : zmq.options()) {
      if (option.option == ZMQ_CURVE_SERVERKEY)
        return option.bytes;
    }
    return "none was set";
  }

  std::string key_of_check() const {
    const worker_settings::ServerKey key = look().DecodedKey();
    return std::string(reinterpret_cast<const char*>(key.bytes), key.length);
  }

  void expect_the_same_as_the_worker() {
    start_worker();
    EXPECT_EQ(endpoints_of_worker(), uris());
    EXPECT_EQ(key_of_worker(), key_of_check());
    findings.clear();
    report = look().CheckDisk(&findings);
    EXPECT_THAT(log.starting_with(".spool_limits"),
                ElementsAre(".spool_limits " + std::to_string(report.chunk_bytes) + " " +
                            std::to_string(report.limit_bytes)));
  }

  test::TempDir dir;
  test::FakeDisk disk;
  std::unique_ptr<SettingsFile> file;
  PluginOptions options;
  ConstantValues constants;
  Findings findings;
  DiskReport report = {};
};

}  // namespace

// -- The same as the worker -----------------------------------------------------------------------

TEST_F(CheckConfiguration, ShowsTheWorkersEndpointsKeyAndLimits) {
  set("zmq.server = collector\nzmq.secondary_servers = a, ,ipc:///tmp/sock , tcp://[::1],a:1,\n"
      "zmq.public_key = " +
      std::string(kGoodKey) + "\ndisk.usage.absolute = 70\npqueue.chunk.size = 3\n");
  expect_the_same_as_the_worker();
  EXPECT_THAT(uris(), ElementsAre("tcp://collector:5555", "tcp://a:5555", "ipc:///tmp/sock:5555",
                                  "tcp://[::1]", "tcp://a:1"));
}

TEST_F(CheckConfiguration, ShowsWhatTheWorkerTakesFromScriptConstants) {
  set("");
  redef("zmq_primary_server", " blanks stay ");
  redef("zmq_secondary_server", " b ,c:1");
  redef("zmq_public_key", "a0B1c");
  expect_the_same_as_the_worker();
}

TEST_F(CheckConfiguration, ShowsWhatTheWorkerMakesOfNothing) {
  set("");
  expect_the_same_as_the_worker();
  EXPECT_THAT(uris(), ElementsAre("tcp://:5555"));
}

TEST_F(CheckConfiguration, ShowsWhatTheWorkerMakesOfLimitsThatWrap) {
  set("disk.usage.absolute = 4097\npqueue.chunk.size = 2048\n");
  expect_the_same_as_the_worker();
}

/// Random texts, as settings and as constants.
class CheckAnyConfiguration : public CheckConfiguration,
                              public ::testing::WithParamInterface<int> {};

TEST_P(CheckAnyConfiguration, ShowsWhatTheWorkerUses) {
  SCOPED_TRACE("seed " + std::to_string(GetParam()));
  std::mt19937 random(static_cast<unsigned>(GetParam()));
  const auto piece = [&] {
    const char* const pieces[] = {"a",      "::1",    "[",  "]",  ":", "5555", ",",  " ", "/",
                                  "tcp://", "ipc://", "Ff", "0a", "9", "\xe9", "//", ";", "-"};
    std::string text;
    for (auto left = random() % 9; left > 0; --left)
      text += pieces[random() % std::size(pieces)];
    return text;
  };
  const auto number = [&] { return std::to_string(static_cast<int>(random() % 9000) - 1000); };
  std::string lines;
  for (const char* key : {"zmq.server", "zmq.secondary_servers", "zmq.public_key"})
    lines += random() % 2 ? std::string(key) + " = " + piece() + "\n" : "";
  for (const char* key : {"disk.usage.relative", "disk.usage.absolute", "pqueue.chunk.size"})
    lines += random() % 2 ? std::string(key) + " = " + number() + "\n" : "";
  set(lines);
  for (const char* name : {"zmq_primary_server", "zmq_secondary_server", "zmq_public_key"})
    constants[name] = piece();
  SCOPED_TRACE(lines);
  expect_the_same_as_the_worker();
  // Whatever it is, judging it must be possible.
  endpoint_findings();
  look().CheckKey(false, &findings);
}

INSTANTIATE_TEST_SUITE_P(Seeds, CheckAnyConfiguration, ::testing::Range(1, 101));

// -- Where values come from -----------------------------------------------------------------------

TEST_F(CheckConfiguration, TellsWhereEachValueComesFrom) {
  set("zmq.server = a\ndisk.usage.relative = 20\n");
  redef("zmq_primary_server", "unused");
  redef("zmq_public_key", "AB");
  redef("set_separator", ";");
  const Configuration configuration = look();
  EXPECT_EQ(source_of("zmq.server"), "settings file");
  EXPECT_EQ(configuration.setting("zmq.server").value, "a");
  EXPECT_EQ(source_of("disk.usage.relative"), "settings file");
  EXPECT_EQ(configuration.setting("disk.usage.relative").value, "20");
  EXPECT_EQ(source_of("zmq.public_key"), "script constant");
  EXPECT_EQ(configuration.setting("zmq.public_key").value, "AB");
  EXPECT_EQ(source_of("set_separator"), "script constant");
  EXPECT_EQ(source_of("zmq.secondary_servers"), "default");
  EXPECT_EQ(source_of("disk.usage.absolute"), "default");
  EXPECT_EQ(configuration.setting("disk.usage.absolute").value, "500");
  EXPECT_EQ(configuration.setting("pqueue.chunk.size").value, "10");
  EXPECT_EQ(source_of("empty_field"), "default");
  EXPECT_EQ(configuration.settings_in_order().size(), 10u);
}

TEST_F(CheckConfiguration, ValueOfTheShippedScriptsThatWasEditedIsAScriptConstant) {
  set("");
  constants["zmq_primary_server"] = "of.the.packager";
  EXPECT_EQ(source_of("zmq.server"), "script constant");
}

TEST_F(CheckConfiguration, RedefOfNothingChangesNothing) {
  set("");
  redef("unset_field", "");
  EXPECT_EQ(source_of("unset_field"), "default");
  EXPECT_EQ(look().setting("unset_field").value, "-");
}

TEST_F(CheckConfiguration, EmptySettingInTheFileWinsOverTheConstant) {
  set("zmq.server =\n");
  redef("zmq_primary_server", "a");
  EXPECT_EQ(source_of("zmq.server"), "settings file");
  EXPECT_THAT(endpoint_findings(), ElementsAre("error server-missing"));
  EXPECT_THAT(text(), HasSubstr("settings: zmq.server is empty"));
}

TEST_F(CheckConfiguration, TextWhereANumberMustBeIsFound) {
  set("disk.usage.relative = ten\ndisk.usage.absolute = 0500\npqueue.chunk.size = 99999999999\n");
  look().CheckNumbers(&findings);
  EXPECT_THAT(named(findings),
              ElementsAre("warning setting-not-a-number", "warning setting-not-a-number"));
  EXPECT_THAT(findings[0].text, HasSubstr("disk.usage.relative = 'ten'"));
  EXPECT_THAT(findings[0].text, HasSubstr("default 10 is used"));
  EXPECT_THAT(findings[1].text, HasSubstr("settings: pqueue.chunk.size = "));
  EXPECT_EQ(look().setting("disk.usage.absolute").value, "500");
  EXPECT_EQ(source_of("disk.usage.absolute"), "settings file");
  EXPECT_EQ(look().setting("disk.usage.relative").value, "10");
  EXPECT_EQ(source_of("disk.usage.relative"), "default");
  EXPECT_EQ(source_of("pqueue.chunk.size"), "default");
}

TEST_F(CheckConfiguration, MistypedNameOfASettingIsFound) {
  for (const char* key : {"zmq.secondary_server", "disk.usage.absolut", "zmq.Server", "ZMQ.server",
                          "pqueue.chunk", "zmq."}) {
    SCOPED_TRACE(key);
    ASSERT_THAT(name_findings("# zmq.none = 1\n " + std::string(key) + "= b\n"),
                ElementsAre("warning setting-unknown"));
    EXPECT_THAT(text(), HasSubstr("settings: '" + std::string(key) + "' is no setting"));
    EXPECT_THAT(findings[0].remedy, HasSubstr("zmq.secondary_servers, disk.usage.relative"));
  }
}

TEST_F(CheckConfiguration, SettingsOfThePlugInAndOfOthersAreFine) {
  EXPECT_THAT(
      name_findings("zmq.server = a\nzmq.public_key = b\nzmq.secondary_servers = c=d\n"
                    "disk.usage.relative = 1\ndisk.usage.absolute = 1\npqueue.chunk.size = 1\n"
                    "sensor.zmq.name = a\ndisk.name = b\nzmqx = c\n\xef\xbb\xbfother = d\n"),
      IsEmpty());
}

TEST_F(CheckConfiguration, ByteOrderMarkThatHidesTheFirstSettingIsFound) {
  EXPECT_THAT(name_findings("\xef\xbb\xbfzmq.server = a\nzmq.public_key = b\n"),
              ElementsAre("warning setting-unknown"));
  EXPECT_THAT(text(), HasSubstr("'zmq.server' is not read: the file begins with a byte order"));
}

TEST_F(CheckConfiguration, SettingsThatCameThroughAPipeAreNotReadOnceMore) {
  set("zmq.typo = a\n");
  options.settings_file = "pipe";
  ASSERT_EQ(mkfifo(dir.file("pipe").c_str(), 0600), 0);
  look().CheckNames(&findings);  // would wait for a writer
  EXPECT_THAT(named(findings), IsEmpty());
}

// -- Endpoints ------------------------------------------------------------------------------------

TEST_F(CheckConfiguration, OrdinaryEndpointsAreFine) {
  for (const char* server :
       {"collector", "collector.example.net:5555", "tcp://10.0.0.1:6000", "10.0.0.1",
        "tcp://127.0.0.1:0;10.0.0.1:6000", "ipc:///tmp/sock:5555", "ipc://@name:1"}) {
    SCOPED_TRACE(server);
    EXPECT_THAT(findings_of(server), IsEmpty());
  }
}

TEST_F(CheckConfiguration, NoServerAnywhereIsFound) {
  set("");
  EXPECT_THAT(endpoint_findings(), ElementsAre("error server-missing"));
  EXPECT_THAT(text(), HasSubstr("sets no zmq.server"));
  EXPECT_THAT(text(), HasSubstr("tcp://:5555"));
}

TEST_F(CheckConfiguration, PortAppendedToAnotherSchemeIsFound) {
  EXPECT_THAT(findings_of("ipc:///tmp/sock"), ElementsAre("warning endpoint-port-appended"));
  EXPECT_THAT(text(), HasSubstr("'ipc:///tmp/sock:5555'"));
}

TEST_F(CheckConfiguration, ColonInBracketsThatKeepsThePortAwayIsFound) {
  EXPECT_THAT(findings_of("tcp://[::1]"), ElementsAre("error endpoint-no-port"));
  EXPECT_THAT(findings_of("[2001:db8::1]"), ElementsAre("error endpoint-no-port"));
  EXPECT_THAT(text(), HasSubstr("'tcp://[2001:db8::1]' gets no port"));
}

TEST_F(CheckConfiguration, AddressOfIpVersionSixIsFound) {
  EXPECT_THAT(findings_of("[::1]:5555"), ElementsAre("error endpoint-ipv6"));
  for (const char* server : {"2001:db8::1", "::1", "1:2:3:4:5:6:7:8:5555", "fe80::1%eth0:5555",
                             "tcp://[fe80::1%eth0]:5555", "::ffff:10.0.0.1:5555"}) {
    SCOPED_TRACE(server);
    EXPECT_THAT(findings_of(server), ElementsAre("error endpoint-ipv6"));
  }
}

TEST_F(CheckConfiguration, OtherColonsAreNotTakenForAnAddressOfIpVersionSix) {
  for (const char* server : {"tcp:127.0.0.1:5", "user:pw:5", "tcp://a:1:2", "[h]:5555"}) {
    SCOPED_TRACE(server);
    EXPECT_THAT(findings_of(server), ElementsAre("error endpoint-characters"));
  }
  EXPECT_THAT(findings_of("tcp:127.0.0.1:5"), ElementsAre("error endpoint-characters"));
  EXPECT_THAT(text(), HasSubstr("has 'tcp:127.0.0.1' where its host must be"));
}

TEST_F(CheckConfiguration, MissingHostIsFound) {
  EXPECT_THAT(findings_of(":7000"), ElementsAre("error endpoint-no-host"));
  EXPECT_THAT(text(), HasSubstr("'tcp://:7000:5555'"));
  EXPECT_THAT(findings_of("tcp://"), ElementsAre("error endpoint-no-host"));
  EXPECT_THAT(findings_of("tcp://a:1;"), ElementsAre("error endpoint-no-host"));
}

TEST_F(CheckConfiguration, OddPortsAreFound) {
  for (const char* server : {"h:", "h:0", "h:65536", "h:abc", "h:*", "h:+5", "h:99999999999999"}) {
    SCOPED_TRACE(server);
    EXPECT_THAT(findings_of(server), ElementsAre("error endpoint-port"));
  }
  EXPECT_THAT(findings_of("h:65535"), IsEmpty());
  EXPECT_THAT(findings_of("h:1"), IsEmpty());
}

TEST_F(CheckConfiguration, CharactersThatNoEndpointHasAreFound) {
  for (const char* server : {"a,b", "\"h:5555\"", "'h'", "a b", "a,b c", "tcp://h/path:1",
                             "tcp://*:5555", "tcp://tcp://h:5", "\xe9", "$HOST:5555", "a=b:1", ".",
                             "-:1", "tcp://;127.0.0.1:1", "tcp://!:0;h:1"}) {
    SCOPED_TRACE(server);
    EXPECT_THAT(findings_of(server), ElementsAre("error endpoint-characters"));
  }
}

TEST_F(CheckConfiguration, PrimaryThatIsNotTrimmedIsFound) {
  set("");
  redef("zmq_primary_server", " a");
  EXPECT_THAT(endpoint_findings(), ElementsAre("error endpoint-characters"));
}

TEST_F(CheckConfiguration, SchemesThatLeadNowhereAreFound) {
  for (const char* server : {"http://h:80", "udp://h:1", "inproc://h:1", "pgm://h:1", "://h",
                             "ws://10.0.0.1:1", "wss://h:1", "TCP://h:1"}) {
    SCOPED_TRACE(server);
    EXPECT_THAT(findings_of(server), ElementsAre("error endpoint-scheme"));
  }
}

TEST_F(CheckConfiguration, PathThatIsTooLongForASocketFileIsFound) {
  constexpr std::size_t kLongest = sizeof(sockaddr_un::sun_path) - 1;
  EXPECT_THAT(findings_of("ipc://" + std::string(kLongest - 2, 'x') + ":1"), IsEmpty());
  EXPECT_THAT(findings_of("ipc://" + std::string(kLongest - 1, 'x') + ":1"),
              ElementsAre("error endpoint-path"));
  EXPECT_THAT(text(), HasSubstr("path of " + std::to_string(kLongest + 1) + " bytes"));
  // The port counts that gets appended.
  EXPECT_THAT(findings_of("ipc://" + std::string(kLongest, 'x')),
              ElementsAre("error endpoint-path"));
}

TEST_F(CheckConfiguration, ServerNamedTwiceIsFound) {
  set("zmq.server = a\nzmq.secondary_servers = b, a:5555, b\n");
  EXPECT_THAT(endpoint_findings(),
              ElementsAre("warning endpoint-repeated", "warning endpoint-repeated"));
  EXPECT_THAT(findings[0].text,
              HasSubstr("secondary server 2 'tcp://a:5555' is the primary server once more"));
  EXPECT_THAT(findings[1].text, HasSubstr("is the secondary server 1 once more"));
}

TEST_F(CheckConfiguration, SecondariesAreCheckedLikeThePrimary) {
  set("zmq.server = a\nzmq.secondary_servers = b c, ipc:///x\n");
  EXPECT_THAT(endpoint_findings(),
              ElementsAre("error endpoint-characters", "warning endpoint-port-appended"));
  EXPECT_THAT(text(), HasSubstr("secondary server 1 'tcp://b c:5555'"));
  EXPECT_THAT(findings[0].remedy, HasSubstr("separated by commas"));
}

// -- The key --------------------------------------------------------------------------------------

TEST_F(CheckConfiguration, GoodKeyIsFine) {
  EXPECT_THAT(key_findings(kGoodKey), IsEmpty());
}

TEST_F(CheckConfiguration, NoKeyAnywhereIsFound) {
  set("");
  look().CheckKey(false, &findings);
  EXPECT_THAT(named(findings), ElementsAre("error key-missing"));
}

TEST_F(CheckConfiguration, EmptyKeyIsFound) {
  EXPECT_THAT(key_findings("", false), ElementsAre("error key-empty"));
  EXPECT_THAT(text(), HasSubstr("decoded to 0 bytes, which libzmq does not take"));
}

TEST_F(CheckConfiguration, LowerCaseKeyIsFoundAndShownAsDecoded) {
  EXPECT_THAT(key_findings("0f" + std::string(62, '1')), ElementsAre("error key-lower-case"));
  EXPECT_THAT(text(), HasSubstr("decoded to another key, 2F111"));
}

TEST_F(CheckConfiguration, LowerCaseKeyThatComesOutRightIsAWarning) {
  EXPECT_THAT(key_findings("f0" + std::string(62, '1')), ElementsAre("warning key-lower-case"));
  EXPECT_THAT(text(), HasSubstr("comes out right by luck"));
}

TEST_F(CheckConfiguration, KeyInZ85IsFound) {
  EXPECT_THAT(key_findings("Yne@$w-vo<fVvi]a<NY6T1ed:M$fCG*[IaLV{hID", false),
              ElementsAre("error key-z85"));
  EXPECT_THAT(text(), HasSubstr("looks like Z85"));
  EXPECT_THAT(text(), HasSubstr("decoded to 20 bytes, which libzmq does not take"));
}

TEST_F(CheckConfiguration, KeyOneDigitShortIsFound) {
  EXPECT_THAT(key_findings(std::string(kGoodKey).substr(1), false),
              ElementsAre("error key-too-short"));
  EXPECT_THAT(text(), HasSubstr("it has 63 characters"));
  EXPECT_THAT(text(), HasSubstr("decoded to 31 bytes"));
}

TEST_F(CheckConfiguration, KeyThatIsTooLongIsFound) {
  EXPECT_THAT(key_findings("\"" + std::string(kGoodKey) + "\"", false),
              ElementsAre("error key-too-long"));
  EXPECT_THAT(text(), HasSubstr("it has 66 characters), and characters that are no hexadecimal"));
  EXPECT_THAT(text(), HasSubstr("decoded to 33 bytes, which libzmq does not take for a key; no "
                                "event leaves the plug-in"));
  EXPECT_THAT(key_findings("\"" + std::string(kGoodKey)), ElementsAre("error key-too-long"));
  EXPECT_THAT(text(), HasSubstr("decoded to another key"));
}

TEST_F(CheckConfiguration, KeyWithOneCharacterBehindItComesOutRight) {
  for (const char* surplus : {"0", "x", "\""}) {
    EXPECT_THAT(key_findings(kGoodKey + std::string(surplus)), ElementsAre("warning key-too-long"));
    EXPECT_THAT(text(), HasSubstr("it has 65 characters"));
    EXPECT_THAT(text(), HasSubstr("decoded from its first 64 digits, and the rest is ignored"));
    EXPECT_THAT(text(), Not(HasSubstr("no event leaves")));
  }
  EXPECT_THAT(key_findings("0f" + std::string(63, '1')), ElementsAre("error key-too-long"));
  EXPECT_THAT(text(), HasSubstr("decoded to another key, 2F111"));
}

TEST_F(CheckConfiguration, DigitsOfAKeyInZ85AreTakenByLibzmq) {
  const std::string digits = hex_digits("Yne@$w-vo<fVvi]a<NY6T1ed:M$fCG*[IaLV{hID", 40);
  for (const char* end : {"", "00"}) {
    EXPECT_THAT(key_findings(digits + end), ElementsAre("warning key-too-long"));
    EXPECT_THAT(text(), HasSubstr(" bytes, which libzmq reads as a key in Z85"));
    EXPECT_THAT(text(), Not(HasSubstr("no event leaves")));
  }
  EXPECT_THAT(key_findings(digits + "41", false), ElementsAre("error key-too-long"));
  EXPECT_THAT(text(), HasSubstr("41 bytes, which libzmq does not take for a key; no event leaves"));
}

TEST_F(CheckConfiguration, KeyWithOtherCharactersIsFound) {
  EXPECT_THAT(key_findings("G" + std::string(63, '1')), ElementsAre("error key-not-hexadecimal"));
  EXPECT_THAT(text(), HasSubstr("decoded to another key"));
}

TEST_F(CheckConfiguration, KeyOfAScriptConstantIsNamedByIt) {
  set("");
  redef("zmq_public_key", "AB");
  look().CheckKey(false, &findings);
  EXPECT_THAT(text(), HasSubstr("LogZMQ::zmq_public_key is no key"));
  EXPECT_THAT(text(), HasSubstr("decoded to 1 byte,"));
}

// -- The disk -------------------------------------------------------------------------------------

TEST_F(CheckConfiguration, DefaultLimitsAreFine) {
  EXPECT_THAT(disk_findings(""), IsEmpty());
  EXPECT_EQ(report.limit_mb, 500);
  EXPECT_EQ(report.limit_bytes, 524288000);
  EXPECT_EQ(report.chunk_bytes, 10485760);
}

TEST_F(CheckConfiguration, SmallDiskMakesTheRelativeLimitWin) {
  disk.blocks = 2048 * 256;
  EXPECT_THAT(disk_findings(""), IsEmpty());
  EXPECT_EQ(report.limit_mb, 204);
  EXPECT_DOUBLE_EQ(report.disk_mb, 2048.0);
}

TEST_F(CheckConfiguration, LimitThatWrapsIsFound) {
  EXPECT_THAT(disk_findings("disk.usage.absolute = 2047\n"), IsEmpty());
  EXPECT_THAT(disk_findings("disk.usage.absolute = 2048\n"),
              ElementsAre("warning disk-limit-wraps"));
  EXPECT_THAT(text(), HasSubstr("2048 MB becomes -2147483648 bytes"));
  EXPECT_THAT(disk_findings("disk.usage.absolute = 4096\n"),
              ElementsAre("warning disk-limit-wraps"));
  EXPECT_THAT(text(), HasSubstr("4096 MB becomes 0 bytes"));
}

TEST_F(CheckConfiguration, ChunkSizeThatWrapsIsFound) {
  EXPECT_THAT(disk_findings("pqueue.chunk.size = 2048\n"), ElementsAre("warning chunk-size-wraps"));
  EXPECT_THAT(text(), HasSubstr("every spooled event would begin a new file"));
  EXPECT_THAT(disk_findings("pqueue.chunk.size = 4097\n"), ElementsAre("warning chunk-size-wraps"));
  EXPECT_THAT(text(), HasSubstr("4097 MB becomes 1048576 bytes"));
  EXPECT_THAT(text(), Not(HasSubstr("new file")));
}

TEST_F(CheckConfiguration, LimitsOfNothingAreFound) {
  EXPECT_THAT(disk_findings("disk.usage.relative = 0\n"),
              ElementsAre("warning disk-limit-not-positive"));
  EXPECT_THAT(disk_findings("disk.usage.absolute = -1\n"),
              ElementsAre("warning disk-limit-not-positive"));
  EXPECT_THAT(disk_findings("pqueue.chunk.size = 0\n"),
              ElementsAre("warning chunk-size-not-positive"));
  EXPECT_THAT(text(), HasSubstr("0 MB, 0 bytes; every spooled event would begin a new file"));
}

TEST_F(CheckConfiguration, LimitsBelowNothingAreNotTakenForOnesThatAreTooLarge) {
  EXPECT_THAT(disk_findings("disk.usage.absolute = -3000\n"),
              ElementsAre("warning disk-limit-not-positive"));
  EXPECT_THAT(text(), HasSubstr("comes out as -3000 MB, 1149239296 bytes"));
  EXPECT_THAT(disk_findings("disk.usage.relative = -2147483648\n"),
              ElementsAre("warning disk-limit-not-positive"));
  EXPECT_THAT(text(), HasSubstr("comes out as -2147483648 MB, 0 bytes"));
  EXPECT_THAT(disk_findings("pqueue.chunk.size = -5000\n"),
              ElementsAre("warning chunk-size-not-positive"));
  EXPECT_THAT(text(), HasSubstr("-5000 MB, -947912704 bytes; every spooled event would begin"));
  EXPECT_THAT(disk_findings("pqueue.chunk.size = -3000\n"),
              ElementsAre("warning chunk-size-not-positive"));
  EXPECT_THAT(text(), HasSubstr("-3000 MB, 1149239296 bytes"));
  EXPECT_THAT(text(), Not(HasSubstr("new file")));
}

TEST_F(CheckConfiguration, DiskThatCannotBeMeasuredIsFound) {
  disk.statvfs_works = false;
  EXPECT_THAT(disk_findings(""), ElementsAre("warning disk-not-measured"));
}
