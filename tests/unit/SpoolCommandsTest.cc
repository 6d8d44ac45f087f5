#include "Commands.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>

#include "FileSizeLimit.h"
#include "LibcNoexcept.h"
#include "RawEvents.h"
#include "SpoolFixture.h"
#include "aggregator_generated.h"

static std::size_t stat_calls = 0;

// Takes the place of the system's.
extern "C" int stat(const char* path, struct stat* status) LIBC_NOEXCEPT {
  stat_calls += std::strstr(path, "/queue.dat") != nullptr;
  return fstatat(AT_FDCWD, path, status, 0);
}

namespace {

using namespace zmqwriter;
using test::header;
using test::record;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

std::string event(const std::string& uid) {
  flatbuffers::FlatBufferBuilder builder;
  const auto text = builder.CreateString(uid);
  builder.Finish(Dravenholt::CreateNetworkEvent(builder, text));
  return {reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize()};
}

struct Outcome {
  int exit_code;
  std::string out;
  std::string err;
};

Outcome run(const std::string& arguments) {
  CLI::App app("test", "zmqwriter");
  int exit_code = 0;
  add_spool_command(app, &exit_code);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  try {
    app.parse("spool " + arguments);
  } catch (const CLI::ParseError& error) {
    exit_code = -error.get_exit_code();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    exit_code = 1;
  }
  return {exit_code, testing::internal::GetCapturedStdout(),
          testing::internal::GetCapturedStderr()};
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

std::vector<std::string> uids(const std::string& lines) {
  std::vector<std::string> uids;
  for (const std::string& line : lines_of(lines))
    uids.push_back(nlohmann::json::parse(line)["uid"]);
  return uids;
}

class SpoolCommandsTest : public testing::Test, protected test::SpoolFixture {};

TEST_F(SpoolCommandsTest, ListShowsEachFileWithItsFigures) {
  put("queue.dat", header(20, 1) + record(0, "new!") + std::string(30, '\0'));
  put("queue.dat.1", header(0, 0) + record(0, "abc") + record(3, "defg"));
  put("queue.dat.3", header(20, 1) + record(0, "old!"));
  const auto before = files();
  const Outcome outcome = run("list " + folder());
  EXPECT_EQ(outcome.exit_code, 1) << "there is damage";
  const auto lines = lines_of(outcome.out);
  ASSERT_EQ(lines.size(), 4u) << outcome.out;
  EXPECT_THAT(lines[0], MatchesRegex("file +size +records +walked +live bytes +stale bytes "
                                     "+damage"));
  EXPECT_THAT(lines[1], MatchesRegex("queue.dat +50 +1 +1 +20 +30 +-"));
  EXPECT_THAT(lines[2], MatchesRegex("queue.dat.1 +27 +0 +2 +27 +0 +2 records that the header "
                                     "does not count .unclean stop."));
  EXPECT_THAT(lines[3], MatchesRegex("queue.dat.3 +20 +1 +1 +20 +0 +after a gap in the numbers, "
                                     "not found by a start"));
  EXPECT_EQ(outcome.err, "3 files, 4 records; the next start of the plug-in finds 1\n");

  const Outcome json = run("list --json " + folder());
  EXPECT_EQ(json.exit_code, 1);
  auto spool = nlohmann::json::parse(json.out);
  EXPECT_GT(spool["disk_free"], 0);
  spool.erase("disk_free");
  EXPECT_EQ(spool, nlohmann::json::parse(R"json({"files":[
    {"name":"queue.dat","size":50,"counted":1,"walked":1,"live_bytes":20,"stale_bytes":30,
     "in_sequence":true,"damage":null,"repairable":true},
    {"name":"queue.dat.1","size":27,"counted":0,"walked":2,"live_bytes":27,"stale_bytes":0,
     "in_sequence":true,"damage":"2 records that the header does not count (unclean stop)",
     "repairable":true},
    {"name":"queue.dat.3","size":20,"counted":1,"walked":1,"live_bytes":20,"stale_bytes":0,
     "in_sequence":false,"damage":"after a gap in the numbers, not found by a start",
     "repairable":true}],
    "records":4,"next_start":1,"damaged":true,"processes":[],"folder":")json" +
                                         folder() + "\"}"));

  // The exit status must not keep the figures of a damaged spool from Prometheus.
  const Outcome metrics = run("list --prometheus " + folder());
  EXPECT_EQ(metrics.exit_code, 0);
  for (const char* value :
       {"files 3", "size_bytes 97", "live_bytes 67", "records 4", "next_start_records 1",
        "damaged_files 2", "processes 0", "disk_free_bytes "}) {
    std::string line = std::string("\nzmqwriter_spool_") + value;
    line.insert(line.find(' '), "{folder=\"" + folder() + "\"}");
    EXPECT_THAT(metrics.out, HasSubstr(line));
  }
  EXPECT_EQ(json.err + metrics.err, "");
  EXPECT_EQ(files(), before);
}

TEST_F(SpoolCommandsTest, HealthySpoolIsSaidToBeSo) {
  limit_chunks(20);
  for (int i = 0; i < 10; ++i)
    store("record " + std::to_string(i));
  stop();
  const auto before = files();
  const Outcome outcome = run("list " + folder());
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.err,
              HasSubstr(" files, 10 records; the next start of the plug-in finds 10\n"));
  EXPECT_THAT(run("repair " + folder()).out, HasSubstr("nothing to repair in "));
  EXPECT_EQ(files(), before);
}

TEST_F(SpoolCommandsTest, LoneHeadWithAForeignSignatureIsNotFoundByTheNextStart) {
  const std::string foreign = "XMQF" + header(20, 1).substr(4) + record(0, "new!");
  put("queue.dat", foreign);
  EXPECT_THAT(run("list " + folder()).err, HasSubstr("1 record; the next start of the plug-in "
                                                     "finds 0\n"));
  start();
  EXPECT_TRUE(spool().IsEmpty());
  stop();

  put("queue.dat.1", header(20, 1) + record(0, "old!"));
  EXPECT_THAT(run("list " + folder()).err, HasSubstr("finds 2\n"));
  EXPECT_EQ(take(), std::optional<std::string>("new!"));
  EXPECT_EQ(take(), std::optional<std::string>("old!"));
}

TEST_F(SpoolCommandsTest, FileSetAsideIsListedAndPutBackByRepair) {
  put("queue.dat", header(20, 1) + record(0, "new!"));
  put("queue.dat.unopened", header(20, 1) + record(0, "old!"));
  const Outcome listed = run("list " + folder());
  EXPECT_EQ(listed.exit_code, 1);
  EXPECT_THAT(listed.out, HasSubstr("queue.dat.unopened "));
  EXPECT_THAT(listed.out, HasSubstr("set aside because it could not be opened"));
  EXPECT_THAT(listed.err, HasSubstr("finds 1\n"));

  const Outcome repaired = run("repair " + folder());
  EXPECT_EQ(repaired.exit_code, 0);
  EXPECT_EQ(repaired.out,
            path("queue.dat.unopened") + ": renamed to " + path("queue.dat.1") + "\n");
  EXPECT_EQ(take(), std::optional<std::string>("new!"));
  EXPECT_EQ(take(), std::optional<std::string>("old!"));
}

TEST_F(SpoolCommandsTest, DumpPrintsEventsInTheOrderInWhichTheyWouldBeSent) {
  put("queue.dat", header(0, 2) + record(0, event("C3")) +
                       record(static_cast<unsigned>(event("C3").size()), event("C4")));
  put("queue.dat.1", header(0, 2) + record(0, event("C1")) +
                         record(static_cast<unsigned>(event("C1").size()), event("C2")));
  put("queue.dat.3", header(0, 1) + record(0, event("C0")));
  const Outcome outcome = run("dump " + folder());
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_THAT(uids(outcome.out), ElementsAre("C4", "C3", "C2", "C1"));

  EXPECT_THAT(take_all(), ElementsAre(event("C4"), event("C3"), event("C2"), event("C1")));
}

TEST_F(SpoolCommandsTest, DumpGivesBytesThatAreNotTextAsAsked) {
  put("queue.dat", header(0, 1) + record(0, event("C\xff")));
  for (const auto& [option, uid] :
       std::map<std::string, std::string>{{"", "\"C\\udcff\""},
                                          {"--json-bytes replace ", "\"C\xef\xbf\xbd\""},
                                          {"--json-bytes base64 ", "{\"base64\":\"Q/8=\"}"}})
    EXPECT_THAT(run("dump " + option + folder()).out, HasSubstr("{\"uid\":" + uid + ","));
}

TEST_F(SpoolCommandsTest, ListAndDumpLookAtEachFileAFewTimesHoweverManyThereAre) {
  constexpr std::uint32_t kFiles = 100;
  for (std::uint32_t number = 0; number < kFiles; ++number)
    put(number == 0 ? "queue.dat" : "queue.dat." + std::to_string(number), header(12, 0));
  for (const char* command : {"list ", "dump "}) {
    stat_calls = 0;
    EXPECT_EQ(run(command + folder()).exit_code, 0);
    EXPECT_GE(stat_calls, kFiles) << "the calls are counted";
    EXPECT_LE(stat_calls, 3 * kFiles) << command;
  }
}

TEST_F(SpoolCommandsTest, DumpReportsWhatIsNoEventOrNotThereAndGoesOn) {
  put("queue.dat", header(0, 4) + record(0, event("C1")) +
                       record(static_cast<unsigned>(event("C1").size()), "junk") +
                       record(4, event("C2")));
  const Outcome outcome = run("dump " + folder());
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(uids(outcome.out), ElementsAre("C2", "C1"));
  EXPECT_THAT(outcome.err, HasSubstr("queue.dat: record of 4 bytes at offset " +
                                     std::to_string(12 + 4 + event("C1").size())));
  EXPECT_THAT(outcome.err, HasSubstr("ends after 3 of the 4 records"));
}

TEST_F(SpoolCommandsTest, RawDumpIsFramedWithLengthsAsTheReaderOfRawEventsHasThem) {
  put("queue.dat", header(0, 3) + record(0, "first") + record(5, "") + record(0, "third"));
  const Outcome outcome = run("dump --raw " + folder());
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.out, test::u32(5) + "third" + test::u32(0) + test::u32(5) + "first");

  test::write_file("dump.raw", outcome.out);
  std::unique_ptr<FILE, int (*)(FILE*)> file(fopen("dump.raw", "rb"), fclose);
  RawEventReader reader(file.get());
  std::vector<std::string> messages(1);
  while (reader.Next(&messages.back()))
    messages.emplace_back();
  EXPECT_THAT(messages, ElementsAre("third", "", "first", ""));
  EXPECT_EQ(reader.problem(), "");
}

TEST_F(SpoolCommandsTest, DryRunSaysWhatItWouldDoAndDoesNothing) {
  store(event("C1"));
  store(event("C2"));
  crash();
  put("queue.dat.5", header(20, 1) + record(0, "old!"));
  const auto before = files();
  const Outcome outcome = run("repair --dry-run " + folder());
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.out, path() + ": header would be set to 2 records, " +
                             std::to_string(content().size()) +
                             " bytes (a start found 0 records)\n" + path("queue.dat.5") +
                             ": would be renamed to " + path("queue.dat.1") + "\n");
  EXPECT_EQ(files(), before);
}

TEST_F(SpoolCommandsTest, RepairMakesTheDumpWholeAndKeepsTheFileAsItWas) {
  store(event("C1"));
  store(event("C2"));
  crash();
  const std::string before = content();
  std::filesystem::create_directory("copies");
  for (const std::string& copy :
       {path("queue.dat.before-repair"), std::string("copies/queue.dat.before-repair"),
        std::string("copies/queue.dat.before-repair.2")}) {
    put("queue.dat", before);
    EXPECT_EQ(run("dump " + folder()).out, "");
    const Outcome outcome =
        run((copy[0] == 'c' ? "repair --copy-to copies " : "repair ") + folder());
    EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
    EXPECT_EQ(outcome.out, path() + ": header set to 2 records, " + std::to_string(before.size()) +
                               " bytes (a start found 0 records)\n  kept as it was in " + copy +
                               "\n");
    EXPECT_EQ(test::read_file(copy), before);
    EXPECT_EQ(content().substr(12), before.substr(12)) << "only the header has changed";
    EXPECT_THAT(uids(run("dump " + folder()).out), ElementsAre("C2", "C1"));
    EXPECT_EQ(run("list " + folder()).exit_code, 0);
    EXPECT_THAT(run("repair " + folder()).out, HasSubstr("nothing to repair in 1 file"));
  }
  EXPECT_THAT(names(), ElementsAre("queue.dat", "queue.dat.before-repair"));
}

TEST_F(SpoolCommandsTest, HeaderIsSetOnlyWithACopyAndSaidToBeSetOnlyThen) {
  store(event(std::string(5000, 'C')));
  crash();
  const auto before = files();
  const test::FileSizeLimit full(4000);
  for (const std::string& options : {std::string(), std::string("--copy-to nowhere ")}) {
    const Outcome outcome = run("repair " + options + folder());
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, (options.empty() ? path("queue.dat.before-repair") +
                                                  ": cannot be written: File too large; "
                                            : "nowhere/queue.dat.before-repair: cannot be written: "
                                              "No such file or directory; ") +
                               path() +
                               " is not repaired; --copy-to DIR writes the copy to another "
                               "folder\n");
  }
  EXPECT_EQ(files(), before);
}

TEST_F(SpoolCommandsTest, ListAndDumpMayRunBesideAnAgentAndRepairRefuses) {
  store(event("C1"));
  const auto before = files();
  EXPECT_THAT(run("list " + folder()).out, HasSubstr("1 record that the header does not count"));
  EXPECT_EQ(run("dump " + folder()).exit_code, 0);
  const Outcome outcome = run("repair " + folder());
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, HasSubstr("in use by process " + std::to_string(getpid())));
  EXPECT_EQ(files(), before);
}

TEST_F(SpoolCommandsTest, RepairSaysWhatItLeavesAsItIs) {
  put("queue.dat", "ZMQF");
  const Outcome outcome = run("repair " + folder());
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, HasSubstr("left as it is: queue.dat: shorter than its header"));
}

TEST_F(SpoolCommandsTest, MissingFolderFailsWithItsName) {
  for (const char* command : {"list", "dump", "repair"}) {
    const Outcome outcome = run(std::string(command) + " no-such-folder");
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_THAT(outcome.err, HasSubstr("no-such-folder: cannot be read: No such file"));
  }
}

TEST_F(SpoolCommandsTest, EmptyFolderIsAnEmptySpool) {
  std::filesystem::create_directory(folder());
  EXPECT_EQ(run("list " + folder()).exit_code, 0);
  EXPECT_EQ(run("dump " + folder()).exit_code, 0);
  EXPECT_EQ(run("dump " + folder()).out, "");
  EXPECT_EQ(run("repair " + folder()).exit_code, 0);
}

TEST_F(SpoolCommandsTest, WrongUsageIsTheParsersBusiness) {
  for (const char* arguments :
       {"", "list", "mend .", "dump --dry-run .", "list a b", "list --json --prometheus ."})
    EXPECT_LT(run(arguments).exit_code, 0) << arguments;
}

}  // namespace
