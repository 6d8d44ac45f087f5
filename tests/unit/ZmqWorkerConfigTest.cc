// What the worker makes of its configuration: endpoints, spool limits, socket options, keys.
#include <zmq.h>

#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <regex>
#include <utility>

#include "FakeDisk.h"
#include "SettingsFile.h"
#include "TempDir.h"
#include "WorkerFixture.h"

using logging::writer::ZmqWorker;
using test::Lines;
using ::testing::IsEmpty;

namespace {

std::string int_bytes(int value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

class Configuration : public test::WorkerFixture {
 protected:
  Configuration() { disk.blocks = 1u << 28; }  // 1 TB

  ~Configuration() override { settings = nullptr; }

  void init(const std::string& server = "localhost", const std::string& key = "",
            const std::string& secondaries = "") {
    worker = new ZmqWorker();
    worker->Init(server, key, secondaries);
  }

  /// As Start, up to the connection.
  void open_context() {
    worker->context = zmq_ctx_new();
    drive();
  }

  void set(const std::string& lines) {
    test::write_file(dir.file("settings"), lines);
    file = std::make_unique<SettingsFile>(dir.file("settings"));
    settings = file.get();
  }

  std::vector<std::string> secondaries_of(const std::string& list) {
    ZmqWorker other = ZmqWorker();
    other.Init("p", "", list);
    return other.secondary_servers;
  }

  std::vector<std::string> limits() { return log.starting_with(".spool_limits"); }
  std::vector<std::string> infos() { return log.starting_with("info"); }

  test::TempDir dir;
  test::FakeDisk disk;
  std::unique_ptr<SettingsFile> file;
};

}  // namespace

TEST_F(Configuration, AFreshWorkerIsZeroInEveryMember) {
  // Over memory that is not: what the parentheses promise.
  alignas(ZmqWorker) unsigned char memory[sizeof(ZmqWorker)];
  std::memset(memory, 0xa5, sizeof memory);
  ZmqWorker& fresh = *new (memory) ZmqWorker();
  EXPECT_EQ(fresh.main_fail_time, 0);
  EXPECT_EQ(fresh.secondary_index, 0);
  EXPECT_FALSE(fresh.running);
  EXPECT_EQ(fresh.context, nullptr);
  EXPECT_EQ(fresh.socket, nullptr);
  EXPECT_EQ(fresh.sent_count, 0u);
  EXPECT_EQ(fresh.failed_count, 0u);
  EXPECT_EQ(fresh.DroppedByFlush(), 0u);
  DravenholtZmqWriterStatus status = {};
  fresh.FillStatus(&status);
  EXPECT_FALSE(status.in_work);
  EXPECT_TRUE(fresh.queue.empty());
  EXPECT_EQ(fresh.server, "");
  fresh.~ZmqWorker();
}

// -- Endpoints ------------------------------------------------------------------------------------

TEST_F(Configuration, EndpointsAreNormalised) {
  const std::pair<const char*, const char*> cases[] = {{"localhost", "tcp://localhost:5555"},
                                                       {"10.0.0.1:6000", "tcp://10.0.0.1:6000"},
                                                       {"tcp://host:7000", "tcp://host:7000"},
                                                       {"", "tcp://:5555"},
                                                       {"ipc:///tmp/sock", "ipc:///tmp/sock:5555"},
                                                       {"tcp://[::1]", "tcp://[::1]"},
                                                       {"[::1]", "tcp://[::1]"},
                                                       {"tcp://:7000", "tcp://:7000:5555"},
                                                       {":7000", "tcp://:7000:5555"},
                                                       {"tcp://", "tcp://:5555"},
                                                       {"tcp://h", "tcp://h:5555"},
                                                       {"tcp://h:", "tcp://h:"},
                                                       {" padded ", "tcp:// padded :5555"}};
  for (const auto& [input, result] : cases)
    EXPECT_EQ(ZmqWorker().correct_zmq_uri(input), result) << input;
}

TEST_F(Configuration, ArgumentsHoldWithoutASettingsFile) {
  init(" first ", "KEY", "second");
  EXPECT_EQ(worker->server, "tcp:// first :5555") << "the primary is not trimmed";
  EXPECT_EQ(worker->public_key, "KEY");
  EXPECT_THAT(worker->secondary_servers, Lines("tcp://second:5555"));
  EXPECT_FALSE(worker->running);
}

TEST_F(Configuration, EachSettingThatIsGivenWinsOverItsArgument) {
  set("zmq.server = a:1\n");
  init("first", "KEY", "second");
  EXPECT_EQ(worker->server, "tcp://a:1");
  EXPECT_EQ(worker->public_key, "KEY");
  EXPECT_THAT(worker->secondary_servers, Lines("tcp://second:5555"));
  delete worker;
  set("zmq.public_key = OTHER\nzmq.secondary_servers = b:2,c:3\n");
  init("first", "KEY", "second");
  EXPECT_EQ(worker->server, "tcp://first:5555");
  EXPECT_EQ(worker->public_key, "OTHER");
  EXPECT_THAT(worker->secondary_servers, Lines("tcp://b:2", "tcp://c:3"));
}

TEST_F(Configuration, SecondaryListIsSplitAtCommasAndTrimmed) {
  init();
  const std::pair<std::string, std::vector<std::string>> lists[] = {
      {"a ,   , b ,", {"a", "b"}},
      {",a", {"a"}},
      {"", {}},
      {",", {}},
      {"   ", {}},
      {"\t a \r\n", {"a"}},
      {"a,b c,d", {"a", "b c", "d"}},
      {"z,a,,z", {"z", "a", "z"}},
      {"\xe9\xff , b", {"\xe9\xff", "b"}},
  };
  for (const auto& [list, expected] : lists) {
    std::vector<std::string> servers;
    for (const std::string& server : expected)
      servers.push_back("tcp://" + server + ":5555");
    EXPECT_EQ(secondaries_of(list), servers) << list;
  }
}

// -- Spool limits ---------------------------------------------------------------------------------

struct Limits {
  const char* promise;
  const char* settings;
  std::function<void(test::FakeDisk&)> disk;
  const char* disk_size;  // in the information line
  int usage_mb;
  const char* limits;  // of a chunk and of all, in bytes
};

std::function<void(test::FakeDisk&)> megabytes(std::uint32_t size) {
  return [size](test::FakeDisk& disk) { disk.blocks = size * 256; };  // of 4096 bytes
}

class SpoolLimits : public Configuration, public ::testing::WithParamInterface<Limits> {};

TEST_P(SpoolLimits, AreTheSmallerOfTheTwo) {
  const Limits& expected = GetParam();
  SCOPED_TRACE(expected.promise);
  set(expected.settings);
  expected.disk(disk);
  init();
  EXPECT_THAT(infos(),
              Lines(std::string("info: Disk size is ") + expected.disk_size +
                    "Mb, setting maximum usage to " + std::to_string(expected.usage_mb) + "Mb"));
  EXPECT_THAT(limits(), Lines(std::string(".spool_limits ") + expected.limits));
}

INSTANTIATE_TEST_SUITE_P(
    Table, SpoolLimits,
    ::testing::Values(
        Limits{"100 GB: the absolute limit wins", "", megabytes(102400), "102400.00", 500,
               "10485760 524288000"},
        Limits{"2 GB: the relative limit wins, truncated", "", megabytes(2048), "2048.00", 204,
               "10485760 213909504"},
        Limits{"equal limits", "", megabytes(5000), "5000.00", 500, "10485760 524288000"},
        Limits{"all from the settings",
               "disk.usage.relative = 50\ndisk.usage.absolute = 70\npqueue.chunk.size = 3\n",
               megabytes(100), "100.00", 50, "3145728 52428800"},
        Limits{"4 GB wrap to zero in the shift", "disk.usage.absolute = 4096\n", megabytes(1 << 20),
               "1048576.00", 4096, "10485760 0"},
        Limits{"2 GB wrap to a negative limit",
               "disk.usage.absolute = 2048\npqueue.chunk.size = 2049\n", megabytes(1 << 20),
               "1048576.00", 2048, "-2146435072 -2147483648"},
        Limits{"negative limits are shifted as they are",
               "disk.usage.absolute = -1\npqueue.chunk.size = -1\n", megabytes(100), "100.00", -1,
               "-1048576 -1048576"},
        Limits{"a relative limit that no int holds",
               "disk.usage.relative = -2147483648\ndisk.usage.absolute = 2147483647\n",
               megabytes(1 << 20), "1048576.00", std::numeric_limits<int>::min(), "10485760 0"},
        Limits{"by block size, not fragment size", "",
               [](test::FakeDisk& disk) {
                 disk.block_bytes = 8192;
                 disk.fragment_bytes = 512;
                 disk.blocks = 128 * 10;
               },
               "10.00", 1, "10485760 1048576"},
        Limits{"no working folder", "", [](test::FakeDisk& disk) { disk.working_folder.clear(); },
               "0.00", 0, "10485760 0"},
        Limits{"a working folder too long for the buffer", "",
               [](test::FakeDisk& disk) { disk.working_folder = std::string(1024, '/'); }, "0.00",
               0, "10485760 0"},
        Limits{"a disk that cannot be measured", "",
               [](test::FakeDisk& disk) { disk.statvfs_works = false; }, "0.00", 0, "10485760 0"}));

TEST_F(Configuration, ASecondWorkerKeepsTheSpoolAndItsLimits) {
  init();
  EXPECT_EQ(disk.asked, "/the/working/folder");
  delete worker;  // never started, so the spool is still there
  log.clear();
  disk.blocks = 1;
  init();
  EXPECT_THAT(log.starting_with(".spool"), IsEmpty());
  EXPECT_THAT(infos(), IsEmpty());
}

TEST_F(Configuration, AWorkerAfterAStoppedOneOpensTheSpoolAnew) {
  init();
  open_context();
  stop();
  EXPECT_THAT(log.starting_with(".spool"), Lines(".spool_close"));
  delete worker;
  log.clear();
  init();
  EXPECT_THAT(log.starting_with(".spool"),
              Lines(".spool_open", ".spool_limits 10485760 524288000"));
}

// -- Connect --------------------------------------------------------------------------------------

namespace {

class Connecting : public Configuration {
 protected:
  void* connect_with_key(const std::string& key) {
    init("p", key);
    open_context();
    log.clear();
    return worker->Connect("tcp://host:1");
  }

  /// The server key that the last Connect set.
  std::string server_key() const {
    const auto options = zmq.options();
    return options.empty() || options.back().option != ZMQ_CURVE_SERVERKEY ? "none set"
                                                                           : options.back().bytes;
  }

  /// The same lines for whichever socket: "s1" and "s2" become "s".
  static std::vector<std::string> without_names(std::vector<std::string> lines) {
    for (std::string& line : lines)
      line = std::regex_replace(line, std::regex(" s[0-9]+"), " s");
    return lines;
  }

  void TearDown() override {
    for (void* opened : sockets)
      zmq_close(opened);
    Configuration::TearDown();
  }

  void* keep(void* opened) {
    sockets.push_back(opened);
    return opened;
  }

  std::vector<void*> sockets;
};

std::string raw_key() {
  std::string bytes;
  for (int i = 0; i < 32; ++i)
    bytes += static_cast<char>(i * 8 + 7);
  return bytes;
}

std::string hex_of(const std::string& bytes, const char* digits) {
  std::string hex;
  for (unsigned char c : bytes) {
    hex += digits[c >> 4];
    hex += digits[c & 15];
  }
  return hex;
}

const char kUpperDigits[] = "0123456789ABCDEF";
const char kLowerDigits[] = "0123456789abcdef";

}  // namespace

TEST_F(Connecting, EveryOptionIsSetInOrderWithItsValueAndLength) {
  ASSERT_NE(keep(connect_with_key(hex_of(raw_key(), kUpperDigits))), nullptr);
  EXPECT_THAT(log.all(),
              Lines("socket s1", ".setsockopt s1 27 length 4", ".setsockopt s1 28 length 4",
                    ".setsockopt s1 17 length 4", ".setsockopt s1 39 length 4",
                    ".setsockopt s1 23 length 4", ".curve_keypair", ".setsockopt s1 48 length 41",
                    ".setsockopt s1 49 length 41", ".setsockopt s1 50 length 32",
                    "connect s1 tcp://host:1 ok"));
  const auto options = zmq.options();
  ASSERT_EQ(options.size(), 8u);
  const std::string nul(1, '\0');
  const std::string values[] = {int_bytes(3000),
                                int_bytes(3000),
                                int_bytes(3000),
                                int_bytes(1),
                                int_bytes(1),
                                "1" + std::string(39, 'P') + nul,
                                "1" + std::string(39, 'S') + nul,
                                raw_key()};
  for (std::size_t i = 0; i < 8; ++i)
    EXPECT_EQ(options[i].bytes, values[i]) << i;
}

TEST_F(Connecting, AnOptionThatFailsIsOverlooked) {
  keep(connect_with_key("AB"));
  const auto all_work = log.all();
  ASSERT_THAT(log.starting_with(".setsockopt"), ::testing::SizeIs(8));
  for (int failing = 0; failing < 8; ++failing) {
    log.clear();
    int calls = 0;
    zmq.on_setsockopt = [&](int) { return calls++ != failing; };
    void* const opened = keep(worker->Connect("tcp://host:1"));
    EXPECT_NE(opened, nullptr) << failing;
    EXPECT_EQ(calls, 8) << failing;
    EXPECT_EQ(without_names(log.all()), without_names(all_work)) << failing;
  }
}

TEST_F(Connecting, WithALibzmqThatLacksCurveNothingIsConnected) {
  keep(connect_with_key("AB"));
  log.clear();
  zmq.on_curve_keypair = [] { return test::kFail; };
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(worker->Connect("tcp://host:1"), nullptr);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_THAT(log.story(), Lines("socket s2",
                                 "error: This libzmq has no CURVE security: nothing will be "
                                 "sent. Install a libzmq that was built with it.",
                                 "close s2"));
}

TEST_F(Connecting, EveryConnectionHasAKeyPairOfItsOwn) {
  keep(connect_with_key(""));
  keep(worker->Connect("tcp://host:2"));
  const auto options = zmq.options();
  ASSERT_EQ(options.size(), 16u);
  EXPECT_EQ(options[5].bytes[0], '1');
  EXPECT_EQ(options[13].bytes[0], '2');
  EXPECT_EQ(options[6].bytes[0], '1');
  EXPECT_EQ(options[14].bytes[0], '2');
}

TEST_F(Connecting, TheKeyIsReadAsHexadecimalInUpperCaseWhateverItIs) {
  std::string lower_case_key = raw_key();  // as it is decoded
  for (char& c : lower_case_key)
    if ((c & 0x0f) > 9)
      c = static_cast<char>(c | 0x20);
  ASSERT_NE(lower_case_key, raw_key());
  const std::string z85 = "Yne@$w-vo<fVvi]a<NY6T1ed:M$fCG*[IaLV{hID";
  const std::pair<std::string, std::string> keys[] = {
      {hex_of(raw_key(), kUpperDigits), raw_key()},
      {hex_of(raw_key(), kLowerDigits), lower_case_key},
      // A lower-case letter is right as a first digit only.
      {"a0b1c2d3e4f50a0b0c0d0e0f1f", "\xa0\xb1\xc2\xd3\xe4\xf5\x2a\x2b\x2c\x2d\x2e\x2f\x3f"},
      {"", ""},
      {"A", ""},
      {"ABC", "\xab"},
      {std::string(81, '1'), std::string(40, '\x11')},
      {std::string(82, '1'), std::string(41, '\x11')},
      {std::string(82, '1') + std::string(500, '2'), std::string(41, '\x11')},
      {"@0", std::string(1, '\0')},  // no letter: (0x40 << 4 & 0xff) | 0
      // Signed characters -1 and -128: neither is above 0x40, so (0xff << 4 & 0xff) | 0x80 - 0x30.
      {"\xff\x80", "\xf0"},
      // 'Y' (0x59) and 'n' (0x6e): (0x59 - 7 << 4 & 0xff) | 0x6e - 0x37; 'e' and '@' (0x40, no
      // letter): (0x65 - 7 << 4 & 0xff) | 0x40 - 0x30.
      {z85.substr(0, 4), "\x37\xf0"},
  };
  keep(connect_with_key(""));
  for (const auto& [key, bytes] : keys) {
    worker->public_key = key;
    keep(worker->Connect("tcp://host:1"));
    EXPECT_EQ(server_key(), bytes) << key;
  }
  worker->public_key = z85;
  keep(worker->Connect("tcp://host:1"));
  EXPECT_EQ(server_key().size(), 20u);
}

// -- Start ----------------------------------------------------------------------------------------

namespace {
class Starting : public Configuration {};
}  // namespace

TEST_F(Starting, SaysWhereItConnectsAndZeroesTheCounters) {
  init("host", "AB");
  worker->sent_count = 7;
  worker->failed_count = 8;
  ::testing::internal::CaptureStdout();
  worker->Start();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Connecting to tcp://host:5555\nUsing zmq server tcp://host:5555\n"
            "Using zmq public key AB\n");
  EXPECT_TRUE(worker->running);
  EXPECT_EQ(sent(), 0u);
  EXPECT_EQ(failed(), 0u);
}

TEST_F(Starting, ASecondStartDoesNothing) {
  init();
  worker->Start();
  worker->Start();
  EXPECT_THAT(log.starting_with("ctx_new"), Lines("ctx_new"));
  EXPECT_THAT(log.starting_with("socket"), Lines("socket s1"));
}

TEST_F(Starting, ARefusedPrimaryIsReportedTwice) {
  zmq.on_connect = [](const std::string&) { return test::kFail; };
  init("bad");
  log.clear();
  worker->Start();
  EXPECT_THAT(log.story(), Lines("ctx_new", "socket s1", "connect s1 tcp://bad:5555 failed",
                                 "error: Failed to connect to ZMQ server tcp://bad:5555",
                                 "close s1", "error: Failed to open ZMQ socket"));
  EXPECT_FALSE(worker->running);
}

#ifdef __GLIBC__  // elsewhere the default size of stacks cannot be set
TEST_F(Starting, WithoutASendThreadTheWorkerStaysIdle) {
  pthread_attr_t before, too_large;
  ASSERT_EQ(pthread_getattr_default_np(&before), 0);
  ASSERT_EQ(pthread_getattr_default_np(&too_large), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&too_large, size_t{1} << 50), 0);
  init("p");
  log.clear();
  ASSERT_EQ(pthread_setattr_default_np(&too_large), 0);
  worker->Start();
  ASSERT_EQ(pthread_setattr_default_np(&before), 0);
  EXPECT_FALSE(worker->running);
  EXPECT_THAT(log.story(), Lines("ctx_new", "socket s1", "connect s1 tcp://p:5555 ok",
                                 "error: Failed to start the send thread"));
  pthread_attr_destroy(&before);
  pthread_attr_destroy(&too_large);
}
#endif

TEST_F(Starting, TheSendThreadEndsWithTheWorkerAsItsResult) {
  init();
  worker->Start();
  worker->running = false;
  void* result = nullptr;
  ASSERT_EQ(pthread_join(worker->thread, &result), 0);
  EXPECT_EQ(result, worker);
}

TEST_F(Starting, WithoutAContextOrASocketTheWorkerStaysIdle) {
  zmq.on_socket = [] { return test::kFail; };
  init();
  log.clear();
  worker->Start();
  EXPECT_THAT(log.story(), Lines("ctx_new", "socket failed", "error: Failed to open ZMQ socket",
                                 "error: Failed to open ZMQ socket"));
  EXPECT_FALSE(worker->running);
  EXPECT_NE(worker->context, nullptr);
  zmq.on_ctx_new = [] { return test::kFail; };
  worker->Start();
  EXPECT_FALSE(worker->running);
  EXPECT_EQ(worker->socket, nullptr);
}

TEST_F(Starting, AnIdleWorkerCollectsInMemoryThenInTheSpoolAndStopDoesNothing) {
  zmq.on_connect = [](const std::string&) { return test::kFail; };
  init();
  worker->Start();
  log.clear();
  write_many(502);
  EXPECT_EQ(worker->queue.size(), 500u);
  EXPECT_THAT(test::FakeSpool::contents(), Lines("r500", "r501"));

  log.clear();
  ::testing::internal::CaptureStdout();
  worker->Stop();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_THAT(log.all(), IsEmpty());
  EXPECT_EQ(worker->queue.size(), 500u);
  EXPECT_EQ(sent() + failed(), 0u);
  test::take_queue(worker);  // an idle worker does not free it
}
