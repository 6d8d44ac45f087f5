// Checks of a configuration: they see what the worker uses, and find what is wrong with it.
#include <sys/stat.h>
#include <sys/un.h>
#include <zmq.h>

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <tuple>

#include "Configuration.h"
#include "FakeDisk.h"
#include "SettingsFile.h"
#include "TempDir.h"
#include "Text.h"
#include "WorkerFixture.h"

using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

using namespace zmqwriter;

const char kGoodKey[] = "0F1E2D3C4B5A69788796A5B4C3D2E1F00F1E2D3C4B5A69788796A5B4C3D2E1F0";

/// A worker, as its own tests have it, and the check of the same configuration.
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

  /// "error server-missing, ..."; what a check adds is in `findings`.
  std::string found(const std::string& lines,
                    const std::function<void(const Configuration&)>& check) {
    set(lines);
    findings.clear();
    check(look());
    std::string named;
    for (const Finding& finding : findings)
      named += (named.empty() ? "" : ", ") +
               std::string(finding.severity == Severity::kError ? "error " : "warning ") +
               finding.id;
    return named;
  }

  std::string endpoint_findings(const std::string& lines) {
    return found(lines, [&](const Configuration& seen) { seen.CheckEndpoints(&findings); });
  }

  std::string findings_of(const std::string& primary) {
    return endpoint_findings("zmq.server = " + primary + "\n");
  }

  std::string name_findings(const std::string& lines) {
    return found(lines,
                 [&](const Configuration&) { check_names(options.settings_file, &findings); });
  }

  std::string key_findings(const std::string& lines, bool accepted = false) {
    return found(lines, [&](const Configuration& seen) { seen.CheckKey(accepted, &findings); });
  }

  std::string disk_findings(const std::string& lines) {
    return found(lines, [&](const Configuration& seen) { report = seen.CheckDisk(&findings); });
  }

  std::string text() const { return findings.empty() ? "" : findings[0].text; }

  std::string source_of(const std::string& name) const {
    const char* const places[] = {"default", "script constant", "settings file"};
    return places[look().setting(name).place];
  }

  /// Starts a worker with the same configuration and lets it connect to every server.
  void start_worker() {
    worker = new Worker();
    worker->Init(constants["zmq_primary_server"], constants["zmq_public_key"],
                 constants["zmq_secondary_server"]);
    test::connect(worker);
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
  // The checks take any text.
  endpoint_findings(lines);
  key_findings(lines);
}

INSTANTIATE_TEST_SUITE_P(Seeds, CheckAnyConfiguration, ::testing::Range(1, 101));

// -- Where values come from -----------------------------------------------------------------------

TEST_F(CheckConfiguration, ValueOfTheScriptsWinsOverNothingOnly) {
  set("");
  constants["zmq_primary_server"] = "of.the.packager";
  EXPECT_EQ(source_of("zmq.server"), "script constant");
  redef("unset_field", "");
  EXPECT_EQ(source_of("unset_field"), "default");
  EXPECT_EQ(look().setting("unset_field").value, "-");
  EXPECT_EQ(endpoint_findings("zmq.server =\n"), "error server-missing");
  EXPECT_EQ(source_of("zmq.server"), "settings file");
  EXPECT_THAT(text(), HasSubstr("settings: zmq.server"));
}

TEST_F(CheckConfiguration, TextWhereANumberMustBeIsFound) {
  EXPECT_EQ(found("disk.usage.relative = ten\ndisk.usage.absolute = 0500\n"
                  "pqueue.chunk.size = 99999999999\n",
                  [&](const Configuration& seen) { seen.CheckNumbers(&findings); }),
            "warning setting-not-a-number, warning setting-not-a-number");
  EXPECT_THAT(findings[0].text, HasSubstr("settings: disk.usage.relative = 'ten'"));
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
    EXPECT_EQ(name_findings("# zmq.none = 1\n " + std::string(key) + "= b\n"),
              "warning setting-unknown");
    EXPECT_THAT(text(), HasSubstr("settings: '" + std::string(key) + "'"));
  }
  EXPECT_EQ(name_findings("\xef\xbb\xbfzmq.server = a\nzmq.public_key = b\n"),
            "warning setting-unknown");
  EXPECT_THAT(text(), HasSubstr("byte order mark"));
  // Those of the plug-in and of others are fine.
  EXPECT_EQ(
      name_findings("zmq.server = a\nzmq.public_key = b\nzmq.secondary_servers = c=d\n"
                    "disk.usage.relative = 1\ndisk.usage.absolute = 1\npqueue.chunk.size = 1\n"
                    "sensor.zmq.name = a\ndisk.name = b\nzmqx = c\n\xef\xbb\xbfother = d\n"),
      "");
}

TEST_F(CheckConfiguration, ScriptNamesAndNotesBehindValuesAreCalledWhatTheyAre) {
  const std::string script = "warning setting-script-name", note = "warning setting-note";
  // line, finding, and what its text and what to do about it say
  const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
      {"LogZMQ::zmq_primary_server = a", script, "'LogZMQ::zmq_primary_server'", "zmq.server"},
      {"redef LogZMQ::zmq_public_key = \"b\";", script, "not read", "zmq.public_key"},
      {"zmq_secondary_server = c", script, "not read", "zmq.secondary_servers"},
      {"LogZMQ::server = d", script, "'LogZMQ::server'", "zmq.server"},
      {"logzmq::ZMQ.Server = d", script, "not read", "zmq.server"},
      {"LogZMQ::zmq_agent_id = e", script, "not read", "--set LogZMQ::zmq_agent_id="},
      {"LogZMQ::nothing = e", "warning setting-unknown", "'LogZMQ::nothing'", "zmq.server"},
      {"redef LogZMQ::set_separator = ;", script, "not read", "--set LogZMQ::set_separator="},
      {"zmq.server = tcp://a:1 # primary", note, "zmq.server: '# primary'", "line of its own"},
      {"zmq.server = a\t;b", note, "';b'", "line of its own"},
      {"zmq.secondary_servers = # none", note, "zmq.secondary_servers: '# none'", "of its own"},
      {"disk.usage.absolute = 500 // MB", note, "'// MB'", "line of its own"},
      {"zmq.server = tcp://127.0.0.1:0;10.0.0.1:6000", "", "", ""},
      {"zmq.secondary_servers = tcp://a:1, ipc:///tmp/#1", "", "", ""},
      {"other.server = a # b", "", "", ""},
      {"set_separator = b", "", "", ""}};
  for (const auto& [line, finding, what, remedy] : cases) {
    SCOPED_TRACE(line);
    EXPECT_EQ(name_findings(line + "\n"), finding);
    EXPECT_THAT(text(), HasSubstr(what));
    if (!findings.empty()) {
      EXPECT_THAT(findings[0].remedy, HasSubstr(remedy));
    }
  }
}

TEST_F(CheckConfiguration, SettingsThatCameThroughAPipeAreNotReadOnceMore) {
  options.settings_file = "pipe";
  ASSERT_EQ(mkfifo(dir.file("pipe").c_str(), 0600), 0);
  EXPECT_EQ(name_findings("zmq.typo = a\n"), "");  // would wait for a writer
}

// -- Endpoints ------------------------------------------------------------------------------------

TEST_F(CheckConfiguration, OrdinaryEndpointsAreFine) {
  for (const char* server :
       {"collector", "collector.example.net:5555", "tcp://10.0.0.1:6000", "10.0.0.1", "h:1",
        "h:65535", "tcp://127.0.0.1:0;10.0.0.1:6000", "ipc:///tmp/sock:5555", "ipc://@name:1"}) {
    SCOPED_TRACE(server);
    EXPECT_EQ(findings_of(server), "");
  }
}

TEST_F(CheckConfiguration, EndpointsThatCannotWorkAreFound) {
  const std::map<std::string, std::vector<std::string>> servers_by_finding = {
      {"error server-missing", {""}},
      {"warning endpoint-port-appended", {"ipc:///tmp/sock"}},
      {"error endpoint-no-port", {"tcp://[::1]", "[2001:db8::1]"}},
      {"error endpoint-ipv6",
       {"[::1]:5555", "2001:db8::1", "::1", "1:2:3:4:5:6:7:8:5555", "fe80::1%eth0:5555",
        "tcp://[fe80::1%eth0]:5555", "::ffff:10.0.0.1:5555"}},
      {"error endpoint-no-host", {":7000", "tcp://", "tcp://a:1;"}},
      {"error endpoint-port", {"h:", "h:0", "h:65536", "h:abc", "h:*", "h:+5", "h:99999999999999"}},
      {"error endpoint-characters",
       {"tcp:127.0.0.1:5", "user:pw:5", "tcp://a:1:2", "[h]:5555", "a,b", "\"h:5555\"", "'h'",
        "a b", "a,b c", "tcp://h/path:1", "tcp://*:5555", "tcp://tcp://h:5", "\xe9", "$HOST:5555",
        "a=b:1", ".", "-:1", "tcp://;127.0.0.1:1", "tcp://!:0;h:1"}},
      {"error endpoint-scheme",
       {"http://h:80", "udp://h:1", "inproc://h:1", "pgm://h:1", "://h", "ws://10.0.0.1:1",
        "wss://h:1", "TCP://h:1"}}};
  for (const auto& [finding, servers] : servers_by_finding) {
    for (const std::string& server : servers) {
      SCOPED_TRACE(server);
      EXPECT_EQ(findings_of(server), finding);
      EXPECT_THAT(text(), HasSubstr(uris()[0]));
    }
  }
}

TEST_F(CheckConfiguration, ConstantsAreCheckedToo) {
  EXPECT_EQ(endpoint_findings(""), "error server-missing");
  EXPECT_EQ(key_findings(""), "error key-missing");
  redef("zmq_primary_server", " a");  // not trimmed
  EXPECT_EQ(endpoint_findings(""), "error endpoint-characters");
  redef("zmq_public_key", "AB");
  EXPECT_EQ(key_findings(""), "error key-too-short");
  EXPECT_THAT(text(), HasSubstr("LogZMQ::zmq_public_key"));
  EXPECT_THAT(text(), HasSubstr("to 1 byte,"));
}

TEST_F(CheckConfiguration, PathThatIsTooLongForASocketFileIsFound) {
  constexpr std::size_t kLongest = sizeof(sockaddr_un::sun_path) - 1;
  EXPECT_EQ(findings_of("ipc://" + std::string(kLongest - 2, 'x') + ":1"), "");
  EXPECT_EQ(findings_of("ipc://" + std::string(kLongest - 1, 'x') + ":1"), "error endpoint-path");
  // The port counts that gets appended.
  EXPECT_EQ(findings_of("ipc://" + std::string(kLongest, 'x')), "error endpoint-path");
}

TEST_F(CheckConfiguration, SecondariesAreCheckedLikeThePrimaryAndForBeingOthers) {
  EXPECT_EQ(endpoint_findings("zmq.server = a\nzmq.secondary_servers = b, a:5555, b\n"),
            "warning endpoint-repeated, warning endpoint-repeated");
  EXPECT_THAT(findings[0].text, ContainsRegex("secondary server 2 'tcp://a:5555'.*primary server"));
  EXPECT_THAT(findings[1].text, ContainsRegex("secondary server 3 .*secondary server 1"));
  EXPECT_EQ(endpoint_findings("zmq.server = a\nzmq.secondary_servers = b c, ipc:///x\n"),
            "error endpoint-characters, warning endpoint-port-appended");
  EXPECT_THAT(text(), HasSubstr("secondary server 1 'tcp://b c:5555'"));
}

// -- The key --------------------------------------------------------------------------------------

TEST_F(CheckConfiguration, KeyIsCheckedByItsFormAndByWhatItIsDecodedTo) {
  const std::string good = kGoodKey;
  const std::string z85 = "Yne@$w-vo<fVvi]a<NY6T1ed:M$fCG*[IaLV{hID";
  const std::string z85_digits = hex_digits(z85.data(), z85.size());
  const std::string ones(62, '1');
  // key, whether libzmq accepts it, finding, and what it is decoded to
  const std::tuple<std::string, bool, std::string, std::string> cases[] = {
      {"", false, "error key-empty", "to 0 bytes"},
      {"0f" + ones, true, "error key-lower-case", "to another key, 2F111"},
      {"f0" + ones, true, "warning key-lower-case", ""},
      {"G1" + ones, true, "error key-not-hexadecimal", "to another key"},
      {z85, false, "error key-z85", "to 20 bytes"},
      {good.substr(1), false, "error key-too-short", "to 31 bytes"},
      {"\"" + good + "\"", false, "error key-too-long", "to 33 bytes"},
      {"\"" + good, true, "error key-too-long", "to another key"},
      {good + "x", true, "warning key-too-long", "first 64 digits"},
      {"0f" + ones + "1", true, "error key-too-long", "to another key, 2F111"},
      {z85_digits, true, "warning key-too-long", "to 40 bytes"},
      {z85_digits + "00", true, "warning key-too-long", "to 41 bytes"},
      {z85_digits + "41", false, "error key-too-long", "to 41 bytes"}};
  for (const auto& [key, accepted, finding, decoded] : cases) {
    SCOPED_TRACE(key);
    EXPECT_EQ(key_findings("zmq.public_key = " + key + "\n", accepted), finding);
    EXPECT_THAT(text(), HasSubstr(decoded));
    EXPECT_EQ(text().find("no event leaves") != std::string::npos, finding[0] == 'e');
  }
  EXPECT_EQ(key_findings("zmq.public_key = " + good + "\n", true), "");
}

// -- The disk -------------------------------------------------------------------------------------

TEST_F(CheckConfiguration, DefaultLimitsAreFineAndThatOfASmallDiskIsRelative) {
  EXPECT_EQ(disk_findings(""), "");
  EXPECT_EQ(report.limit_mb, 500);
  EXPECT_EQ(report.limit_bytes, 524288000);
  EXPECT_EQ(report.chunk_bytes, 10485760);
  disk.blocks = 2048 * 256;
  EXPECT_EQ(disk_findings(""), "");
  EXPECT_EQ(report.limit_mb, 204);
  EXPECT_DOUBLE_EQ(report.disk_mb, 2048.0);
  disk.statvfs_works = false;
  EXPECT_EQ(disk_findings(""), "warning disk-not-measured");
}

TEST_F(CheckConfiguration, LimitsThatWrapOrAreNotPositiveAreFoundWithTheirBytes) {
  // line, finding, size and bytes, and whether every event would begin a new file
  const std::tuple<std::string, std::string, std::string, bool> cases[] = {
      {"disk.usage.absolute = 2048", "disk-limit-wraps", "2048 MB becomes -2147483648 bytes",
       false},
      {"disk.usage.absolute = 4096", "disk-limit-wraps", "4096 MB becomes 0 bytes", false},
      {"disk.usage.relative = 0", "disk-limit-not-positive", "0 MB, 0 bytes", false},
      {"disk.usage.absolute = -1", "disk-limit-not-positive", "-1 MB, -1048576 bytes", false},
      {"disk.usage.absolute = -3000", "disk-limit-not-positive", "-3000 MB, 1149239296", false},
      {"disk.usage.relative = -2147483648", "disk-limit-not-positive", "-2147483648 MB, 0", false},
      {"pqueue.chunk.size = 2048", "chunk-size-wraps", "2048 MB becomes -2147483648 bytes", true},
      {"pqueue.chunk.size = 4097", "chunk-size-wraps", "4097 MB becomes 1048576 bytes", false},
      {"pqueue.chunk.size = 0", "chunk-size-not-positive", "0 MB, 0 bytes", true},
      {"pqueue.chunk.size = -5000", "chunk-size-not-positive", "-5000 MB, -947912704", true},
      {"pqueue.chunk.size = -3000", "chunk-size-not-positive", "-3000 MB, 1149239296", false}};
  for (const auto& [line, finding, size, new_files] : cases) {
    SCOPED_TRACE(line);
    EXPECT_EQ(disk_findings(line + "\n"), "warning " + finding);
    EXPECT_THAT(text(), HasSubstr(size));
    EXPECT_EQ(text().find("new file") != std::string::npos, new_files);
  }
  EXPECT_EQ(disk_findings("disk.usage.absolute = 2047\npqueue.chunk.size = 2047\n"), "");
}
