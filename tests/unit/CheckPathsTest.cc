// Checks of the spool folder and the agent-id file, compared with what the plug-in does with them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <tuple>
#include <vector>

#include "CallLog.h"
#include "FakeDisk.h"
#include "OrdinaryUser.h"
#include "PathChecks.h"
#include "PersistentQueue.h"
#include "SpoolFixture.h"

namespace fs = std::filesystem;
using test::as_an_ordinary_user;
using test::header;
using test::record;
using test::write_file;
using ::testing::HasSubstr;
using ::testing::Matcher;
using ::testing::StartsWith;

namespace {

using namespace zmqwriter;
using Places = std::vector<std::string>;

const char kSpool[] = "orvik-spool/work";
const char kIdFile[] = "orvik/agent.id";

/// A folder to make places in, the working directory meanwhile.
class Sandbox {
 public:
  Sandbox() { chmod(dir_.path().c_str(), 0755); }
  ~Sandbox() {
    // Whatever was closed, so that it can be removed.
    for (const char* name : {"orvik", "orvik-spool", "orvik-spool/work"})
      chmod(name, 0755);
  }

 private:
  test::TempDir dir_;
};

std::string listing() {
  std::string names;
  std::error_code error;
  for (auto entry = fs::recursive_directory_iterator(".", error); entry != end(entry);
       entry.increment(error))
    names += entry->path().string() + "\n";
  return names;
}

/// "state: severity id, ...", the texts, and the first remedy.
std::string told(const std::string& state, const Findings& findings) {
  std::string said = state + ":";
  for (const Finding& finding : findings)
    said += std::string(finding.severity == Severity::kError     ? " error "
                        : finding.severity == Severity::kWarning ? " warning "
                                                                 : " note ") +
            finding.id;
  for (const Finding& finding : findings)
    said += "\n" + finding.text;
  return said + (findings.empty() ? "" : "\nTo do: " + findings[0].remedy);
}

std::string spool() {
  Findings findings;
  const std::string before = listing();
  const SpoolReport report = check_spool(kSpool, &findings);
  EXPECT_EQ(listing(), before);
  return told(report.state, findings);
}

/// Whether the plug-in's own spool is of use, as things are now.
std::string spool_itself() {
  PersistentQueue spool;
  return spool.disabled ? "disabled" : "works";
}

/// As the plug-in reports them.
std::size_t corrupted_files() {
  test::CallLog::instance().clear();
  PersistentQueue();
  return test::CallLog::instance().starting_with("warning: Corrupted queue file").size();
}

std::string in_spool(const std::string& name) {
  return kSpool + ("/" + name);
}

/// A file of the spool; `mode` is that of the file.
void put(const std::string& name, const std::string& content, mode_t mode = 0666) {
  fs::create_directories(kSpool);
  chmod(kSpool, 0777);
  write_file(in_spool(name), content);
  chmod(in_spool(name).c_str(), mode);
}

AgentIdReport last;

std::string agent(const std::string& constant = "", const std::string& prefix = "orvik") {
  Findings findings;
  const std::string before = listing();
  last = check_agent_id(
      {"", "LogZMQ::zmq_agent_id", Setting::kScriptConstant, "LogZMQ::zmq_agent_id", constant},
      prefix, &findings);
  EXPECT_EQ(listing(), before);
  return told(last.state, findings);
}

/// Makes places in turn: "FOLDER/", "FILE", "LINK -> TARGET", or "0MODE PLACE" for its permissions.
/// Files are empty.
void make(const std::vector<std::string>& places) {
  for (const std::string& place : places) {
    const std::size_t arrow = place.find(" -> ");
    if (arrow != std::string::npos)
      fs::create_symlink(place.substr(arrow + 4), place.substr(0, arrow));
    else if (place[0] == '0')
      chmod(place.substr(place.find(' ') + 1).c_str(),
            static_cast<mode_t>(std::stoi(place, nullptr, 8)));
    else if (place.back() == '/')
      fs::create_directories(place.substr(0, place.size() - 1));
    else
      write_file(place, "");
  }
}

enum Who { kMe, kUser };

void by(Who who, const std::function<void()>& steps) {
  who == kMe ? steps() : as_an_ordinary_user(steps);
}

}  // namespace

// -- The spool ------------------------------------------------------------------------------------

TEST(CheckPaths, SpoolFolderIsJudgedAsTheSpoolItselfFindsIt) {
  const std::string disabled = "disabled: error spool-";
  // what there is, who looks, what the check says at least, and what the spool does
  const std::tuple<Places, Who, std::string, std::string> cases[] = {
      {{"orvik-spool/work/"}, kMe, "ready:", "works"},
      {{"orvik-spool/"}, kMe, "will be made:", "works"},
      {{"elsewhere/", "orvik-spool/", "orvik-spool/work -> ../elsewhere"}, kMe, "ready:", "works"},
      {{}, kMe, disabled + "parent-missing\nspool disabled: ", "disabled"},
      {{"orvik-spool"}, kMe, disabled + "parent-not-folder\nspool disabled: ", "disabled"},
      {{"orvik-spool/", "orvik-spool/work"}, kMe, disabled + "not-folder\nspool dis", "disabled"},
      {{"orvik-spool/", "orvik-spool/work -> no"}, kMe, disabled + "not-folder\n", "disabled"},
      {{"orvik-spool/", "orvik-spool/work -> work"}, kMe, disabled + "not-reachable\n", "disabled"},
      {{"orvik-spool/", "0555 orvik-spool"}, kUser, disabled + "parent-not-writable\n", "disabled"},
      {{"orvik-spool/work/", "0 orvik-spool"},
       kUser,
       disabled + "not-reachable\nspool disabled: orvik-spool/work cannot be reached: " +
           std::strerror(EACCES),
       "disabled"},
      {{"orvik-spool/work/", "0555 orvik-spool/work"},
       kUser,
       "not writable: error spool-not-writable\n",
       "works"},
      {{"orvik-spool/work/", "0333 orvik-spool/work"},
       kUser,
       "ready: warning spool-not-listed\n",
       "works"}};
  for (const auto& [places, who, expected, itself] : cases) {
    SCOPED_TRACE(expected);
    const Sandbox sandbox;
    make(places);
    const bool is_fine = expected.back() == ':';
    const auto said = is_fine ? Matcher<std::string>(expected) : StartsWith(expected);
    by(who, [&, wanted = itself] {
      EXPECT_THAT(spool(), said);
      EXPECT_EQ(spool_itself(), wanted);
    });
  }
}

TEST(CheckPaths, SpoolFilesAreJudgedAsSpoolListDoes) {
  using Files = std::vector<std::pair<std::string, std::string>>;
  const std::string sound = header(19, 1) + record(0, "abc");
  const std::string uncounted = header(0, 0) + record(0, "abc") + record(3, "defg");
  const std::string damaged = "needs repair: error spool-damaged\nspool file orvik-spool/work/";
  const std::string run =
      "\nTo do: before the host starts, run 'zmqwriter spool repair "
      "orvik-spool/work'";
  const std::string move =
      "\nTo do: before the host starts, copy the folder, run 'zmqwriter spool "
      "repair orvik-spool/work', and move away the files that it cannot repair";
  // the files, what the check says, and how many of them the plug-in calls corrupted
  const std::tuple<Files, std::string, std::size_t> cases[] = {
      {{{"queue.dat", header(12, 0)}, {"queue.dat.1", sound}}, "ready:", 0},
      {{{"queue.dat", uncounted}, {"queue.dat.1", sound}},
       damaged +
           "queue.dat: 2 records that the header does not count (unclean stop); the next "
           "start finds 1 of 3 records, and may write over the others" +
           run,
       0},
      {{{"queue.dat", sound}, {"queue.dat.2", sound}},
       damaged +
           "queue.dat.2: after a gap in the numbers, not found by a start; the next start "
           "finds 1 of 2 records, and may write over the others" +
           run,
       0},
      {{{"queue.dat.unopened", sound}},
       damaged +
           "queue.dat.unopened: set aside because it could not be opened, not found by a "
           "start; the next start finds 0 of 1 record, and may write over the others" +
           run,
       0},
      {{{"queue.dat", sound}, {"queue.dat.1", ""}}, damaged + "queue.dat.1: empty" + run, 1},
      {{{"queue.dat", sound}, {"queue.dat.1", header(0, 0).substr(1)}},
       damaged + "queue.dat.1: shorter than its header" + move,
       1},
      {{{"queue.dat", ""}, {"queue.dat.1", sound}, {"queue.dat.2", "this is no queue at all"}},
       damaged + "queue.dat (and 1 more): empty" + move,
       2}};
  for (const auto& [files, expected, corrupted] : cases) {
    SCOPED_TRACE(expected);
    const Sandbox sandbox;
    for (const auto& [name, content] : files)
      put(name, content);
    EXPECT_EQ(spool(), expected);
    EXPECT_EQ(corrupted_files(), corrupted);
  }
}

TEST(CheckPaths, SpoolFilesThatTheAgentCannotUseAreFound) {
  const Sandbox sandbox;
  for (const char* name : {"queue.dat", "queue.dat.2"})
    put(name, header(12, 0));
  put("queue.dat.1", header(12, 0), 0444);
  as_an_ordinary_user([] {
    EXPECT_THAT(spool(), StartsWith("ready: warning spool-file\nspool file orvik-spool/work/"
                                    "queue.dat.1 cannot be read and"));
  });
  fs::remove(in_spool("queue.dat"));
  fs::create_directory(in_spool("queue.dat"));
  EXPECT_THAT(spool(), HasSubstr("warning spool-file error spool-damaged\nspool file orvik-spool/"
                                 "work/queue.dat is not a regular file, so nothing can be stored"));
}

TEST(CheckPaths, ProcessThatUsesTheSpoolIsNamedUnlessItIsThisOne) {
  const Sandbox sandbox;
  put("queue.dat", header(19, 1) + record(0, "abc"));
  const int own = open(in_spool("queue.dat").c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(spool(), "ready:");
  int to_child[2];
  ASSERT_EQ(pipe(to_child), 0);
  const pid_t child = fork();  // has the file open too
  if (child == 0) {
    close(to_child[1]);
    char end;
    _exit(static_cast<int>(read(to_child[0], &end, 1)));
  }
  close(own);
  EXPECT_THAT(spool(), StartsWith("in use: error spool-in-use\nthe spool orvik-spool/work is in "
                                  "use by process " +
                                  std::to_string(child) + ": "));
  close(to_child[1]);
  waitpid(child, nullptr, 0);
  close(to_child[0]);
  EXPECT_EQ(spool(), "ready:");
}

TEST(CheckPaths, SpoolThatOthersReachIsFound) {
  const std::string open =
      "ready: warning spool-open-to-others\nthe spool folder orvik-spool/work ";
  const std::string remedy = "\nTo do: chmod o-rwx orvik-spool/work";
  // modes of the folder and of its parent, and what the check says
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"0700", "0755", "ready:"},
      {"0770", "0755", "ready:"},
      {"0777", "0750", "ready:"},
      {"0755", "0755", open + "may be read by every user" + remedy},
      {"0701", "0711", open + "may be read by every user" + remedy},
      {"0757", "0755", open + "may be changed by every user" + remedy}};
  for (const auto& [folder, parent, expected] : cases) {
    SCOPED_TRACE(folder + " in " + parent);
    const Sandbox sandbox;
    make({"orvik-spool/work/", folder + " orvik-spool/work", parent + " orvik-spool"});
    Findings findings;
    check_spool_access(kSpool, &findings);
    EXPECT_EQ(told("ready", findings), expected);
  }
  Findings findings;
  check_spool_access("no/spool", &findings);
  EXPECT_EQ(told("", findings), ":");
}

TEST(CheckPaths, SpoolDiskWithLessRoomThanTheLimitOrNoneIsFound) {
  // free KiB, limit in MB, and what the check says
  const std::tuple<std::uint32_t, int, std::string> cases[] = {
      {500 * 1024, 500, ":"},
      {500 * 1024 - 1, 500,
       ": warning spool-disk-space\nthe disk of the spool orvik-spool/work has "
       "500.0 MB free, less than the 500 MB of the spool's limit; "},
      {10 * 1024, 10, ":"},
      {10 * 1024 - 1, 5,
       ": error spool-disk-full\nthe disk of the spool orvik-spool/work has "
       "10.0 MB free: events beyond the 500 in memory are lost"}};
  const SpoolReport report = {kSpool, "orvik-spool", "ready"};
  test::FakeDisk disk;
  for (const auto& [free_kib, limit_mb, expected] : cases) {
    disk.available_blocks = free_kib;
    Findings findings;
    check_spool_space(report, limit_mb, &findings);
    EXPECT_THAT(told("", findings), StartsWith(expected));
    EXPECT_EQ(disk.asked, kSpool);
  }
  disk.statvfs_works = false;
  Findings findings;
  check_spool_space(report, 500, &findings);
  EXPECT_EQ(told("", findings), ":");
  EXPECT_EQ(disk.asked, "orvik-spool");
}

// -- The agent's identifier -----------------------------------------------------------------------

TEST(CheckPaths, IdentifierIsThatOfTheConstantOrElseOfTheFile) {
  const std::string constant = "the agent-id file is not looked at:";
  const std::string line_end = "read: warning agent-id-line-end\n";
  // constant, content of the file, what the check says at least, and the identifier
  const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
      {"", "Izy8GbaHOR9BwO9iK5Tqo8", "read:", "Izy8GbaHOR9BwO9iK5Tqo8"},
      {"agent-7", "other", constant, "agent-7"},
      {"-", "", constant + " note agent-id-dash\n", "-"},
      {" abc", "", constant + " warning agent-id-characters\nLogZMQ::zmq_agent_id ", " abc"},
      {"", "abc def", "read: warning agent-id-characters\n", "abc def"},
      {"", "abc\n", line_end, "abc\n"},
      {"", "abc\r\n", line_end, "abc\r\n"},
      {"", "abc\r", line_end, "abc\r"},
      {"", std::string(1024, 'x'), "read:", std::string(1024, 'x')},
      {"", std::string(1025, 'x'), "read: warning agent-id-too-long\n", std::string(1024, 'x')}};
  const Sandbox sandbox;
  for (const auto& [in_constant, in_file, expected, id] : cases) {
    SCOPED_TRACE(expected);
    make({"orvik/"});
    write_file(kIdFile, in_file);
    const bool is_fine = expected.back() == ':';
    EXPECT_THAT(agent(in_constant),
                is_fine ? Matcher<std::string>(expected) : StartsWith(expected));
    EXPECT_EQ(last.value, id);
    EXPECT_EQ(last.source, in_constant.empty() ? "file" : "script constant");
    EXPECT_EQ(last.path, kIdFile);
  }
}

TEST(CheckPaths, NewIdentifierIsNotedAndWarnedOfWhereItCannotBeKept) {
  const std::string made = "will be made: note agent-id-will-be-made\n";
  const std::string not_kept = "cannot be kept: warning agent-id-not-kept\n";
  const std::string lost = not_kept + "the agent-id file orvik/agent.id cannot be kept: ";
  // what there is, who looks, and what the check says at least
  const std::tuple<Places, Who, std::string> cases[] = {
      {{"orvik/"}, kMe, made},
      {{}, kMe, made},  // the folder too
      {{"orvik/", "elsewhere/", "orvik/agent.id -> ../elsewhere/link",
        "elsewhere/link -> agent.id"},
       kMe,
       made},
      {{"orvik/", "orvik/agent.id"}, kMe, "empty, will be written: note agent-id-empty\n"},
      {{"orvik"}, kMe, not_kept},
      {{"orvik/", "0555 orvik"}, kUser, not_kept},
      {{"orvik/", "orvik/agent.id", "0444 orvik/agent.id"}, kUser, not_kept},
      {{"orvik/", "orvik/agent.id -> ../elsewhere/agent.id"},
       kMe,
       lost + "orvik/../elsewhere is not a folder"},
      {{"orvik/", "elsewhere/", "0555 elsewhere", "orvik/agent.id -> ../elsewhere/agent.id"},
       kUser,
       not_kept},
      {{"orvik/", "orvik/agent.id -> agent.id"},
       kMe,
       lost + "it cannot be reached: " + std::strerror(ELOOP)},
      {{"orvik/agent.id/"}, kMe, "no file: warning agent-id-not-kept\n"}};
  for (const auto& [places, who, expected] : cases) {
    SCOPED_TRACE(expected);
    const Sandbox sandbox;
    make(places);
    by(who, [&, wanted = expected] {
      EXPECT_THAT(agent(), StartsWith(wanted));
      EXPECT_TRUE(last.source == "generated" && last.value.empty());
    });
  }
  const Sandbox sandbox;
  EXPECT_THAT(agent("", "missing/orvik"), StartsWith(not_kept));
  make({"orvik/"});
  write_file(kIdFile, "secret");
  chmod(kIdFile, 0);
  as_an_ordinary_user(
      [] { EXPECT_THAT(agent(), StartsWith("unreadable: error agent-id-unreadable\n")); });
}

TEST(CheckPaths, PipeOrDeviceInThePlaceOfTheFileIsFoundAndNotRead) {
  const Sandbox sandbox;
  const auto expect_found = [](const std::string& said) {
    EXPECT_THAT(said, StartsWith("no file: error agent-id-not-file\n"));
    EXPECT_EQ(last.source + last.value, "not known");
  };
  make({"orvik/", "orvik/agent.id -> /dev/zero"});
  expect_found(agent());
  fs::remove(kIdFile);
  ASSERT_EQ(mkfifo(kIdFile, 0600), 0);
  // Opening it for reading would wait for ever.
  auto looking = std::async(std::launch::async, [] { return agent(); });
  const bool waits = looking.wait_for(std::chrono::seconds(20)) != std::future_status::ready;
  if (waits)
    close(open(kIdFile, O_WRONLY));
  EXPECT_FALSE(waits);
  expect_found(looking.get());
}
