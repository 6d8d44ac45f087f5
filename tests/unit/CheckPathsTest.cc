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
#include <vector>

#include "CallLog.h"
#include "PathChecks.h"
#include "PersistentQueue.h"
#include "SpoolInside.h"
#include "TempDir.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

using namespace zmqwriter;

const char kSpool[] = "orvik-spool/work";
const char kPrefix[] = "orvik";
const char kIdFile[] = "orvik/agent.id";
const std::string kHeader("ZMQF\x0c\0\0\0\0\0\0\0", 12);

std::string listing() {
  std::string names;
  for (const auto& entry : fs::recursive_directory_iterator("."))
    names += entry.path().string() + "\n";
  return names;
}

class CheckPaths : public ::testing::Test {
 protected:
  CheckPaths() { chmod(dir.path().c_str(), 0755); }

  ~CheckPaths() override {
    // Whatever a test has closed, so that it can be removed.
    for (const char* name : {"orvik", "orvik-spool", "orvik-spool/work"})
      chmod(name, 0755);
  }

  static void make(const std::string& folder) { fs::create_directories(folder); }
  static void close_to_writers(const std::string& folder) { chmod(folder.c_str(), 0555); }

  /// "state: severity id, ..." and the first text, as somebody who is not root sees it.
  std::string as_ordinary_user(const std::function<std::string()>& look) {
    if (geteuid() != 0)
      return look();
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      std::string said = setgid(65534) == 0 && setuid(65534) == 0 ? look() : "still root";
      const ssize_t written = write(ends[1], said.data(), said.size());
      _exit(written == static_cast<ssize_t>(said.size()) ? 0 : 1);
    }
    close(ends[1]);
    std::string said;
    char bytes[512];
    for (ssize_t got; (got = read(ends[0], bytes, sizeof bytes)) > 0;)
      said.append(bytes, static_cast<std::size_t>(got));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    return said;
  }

  static std::string told(const std::string& state, const Findings& findings) {
    std::string said = state + ":";
    for (const Finding& finding : findings)
      said += std::string(finding.severity == Severity::kError     ? " error "
                          : finding.severity == Severity::kWarning ? " warning "
                                                                   : " note ") +
              finding.id;
    for (const Finding& finding : findings)
      said += "\n" + finding.text;
    return said;
  }

  static std::string spool() {
    Findings findings;
    const std::string before = listing();
    const SpoolReport report = check_spool(kSpool, &findings);
    EXPECT_EQ(listing(), before);
    return told(report.state, findings);
  }

  /// The same where the folders cannot be listed.
  static std::string spool_in_closed_folder() {
    Findings findings;
    const SpoolReport report = check_spool(kSpool, &findings);
    return told(report.state, findings);
  }

  static void write_chunks(const std::vector<std::string>& chunks) {
    make(kSpool);
    for (std::size_t i = 0; i < chunks.size(); ++i)
      test::write_file(kSpool + ("/queue.dat" + (i > 0 ? "." + std::to_string(i) : std::string())),
                       chunks[i]);
  }

  /// As the plug-in reports them.
  static std::size_t corrupted_files() {
    test::CallLog::instance().clear();
    PersistentQueue();
    return test::CallLog::instance().starting_with("warning: Corrupted queue file").size();
  }

  static std::string agent(const std::string& constant = "") {
    Findings findings;
    const std::string before = listing();
    last = check_agent_id({"", "LogZMQ::zmq_agent_id", SettingOrigin::kScriptConstant,
                           "LogZMQ::zmq_agent_id", constant},
                          kPrefix, &findings);
    EXPECT_EQ(listing(), before);
    return told(last.state, findings);
  }

  /// Whether the plug-in's own spool is of use, as things are now.
  static std::string spool_itself() {
    PersistentQueue spool;
    return test::SpoolInside(&spool).disabled ? "disabled" : "works";
  }

  test::TempDir dir;
  static AgentIdReport last;
};

AgentIdReport CheckPaths::last;

}  // namespace

// -- The spool ------------------------------------------------------------------------------------

TEST_F(CheckPaths, SpoolThatIsThereIsFine) {
  make(kSpool);
  EXPECT_EQ(spool(), "ready:");
  EXPECT_EQ(spool_itself(), "works");
}

TEST_F(CheckPaths, SpoolWhoseParentIsThereWillBeMade) {
  make("orvik-spool");
  EXPECT_EQ(spool(), "will be made:");
  EXPECT_EQ(spool_itself(), "works");
}

TEST_F(CheckPaths, MissingParentDisablesTheSpool) {
  EXPECT_THAT(spool(), StartsWith("disabled: error spool-parent-missing\nspool disabled: "));
  EXPECT_EQ(spool_itself(), "disabled");
}

TEST_F(CheckPaths, ParentThatIsNoFolderDisablesTheSpool) {
  test::write_file("orvik-spool", "");
  EXPECT_THAT(spool(), StartsWith("disabled: error spool-parent-not-folder\nspool disabled: "));
  EXPECT_EQ(spool_itself(), "disabled");
}

TEST_F(CheckPaths, SpoolThatIsNoFolderIsDisabled) {
  make("orvik-spool");
  test::write_file(kSpool, "");
  EXPECT_THAT(spool(), StartsWith("disabled: error spool-not-folder\nspool disabled: "));
  EXPECT_EQ(spool_itself(), "disabled");
}

TEST_F(CheckPaths, SpoolThatIsALinkToNowhereIsDisabled) {
  make("orvik-spool");
  fs::create_symlink("nowhere", kSpool);
  EXPECT_THAT(spool(), StartsWith("disabled: error spool-not-folder\n"));
  EXPECT_EQ(spool_itself(), "disabled");
}

TEST_F(CheckPaths, SpoolThatIsALinkToAFolderIsFine) {
  make("orvik-spool");
  make("elsewhere");
  fs::create_symlink("../elsewhere", kSpool);
  EXPECT_EQ(spool(), "ready:");
  EXPECT_EQ(spool_itself(), "works");
}

TEST_F(CheckPaths, ParentThatCannotBeWrittenDisablesTheSpool) {
  make("orvik-spool");
  close_to_writers("orvik-spool");
  EXPECT_THAT(as_ordinary_user(spool),
              StartsWith("disabled: error spool-parent-not-writable\nspool disabled: "));
  EXPECT_EQ(as_ordinary_user(spool_itself), "disabled");
}

TEST_F(CheckPaths, SpoolThatCannotBeWrittenIsFound) {
  make(kSpool);
  close_to_writers(kSpool);
  EXPECT_THAT(as_ordinary_user(spool), StartsWith("not writable: error spool-not-writable\n"));
}

TEST_F(CheckPaths, SpoolFileThatCannotBeWrittenIsFound) {
  make(kSpool);
  chmod(kSpool, 0777);
  test::write_file(std::string(kSpool) + "/queue.dat", kHeader);
  chmod("orvik-spool/work/queue.dat", 0444);
  EXPECT_THAT(as_ordinary_user(spool), StartsWith("ready: warning spool-file\n"));
}

TEST_F(CheckPaths, SpoolFileThatIsNoneIsFound) {
  make(std::string(kSpool) + "/queue.dat");
  EXPECT_THAT(spool(), StartsWith("ready: warning spool-file\n"));
}

TEST_F(CheckPaths, SpoolFilesThatAreInOrderAreNot) {
  write_chunks({kHeader, kHeader + std::string("more")});
  EXPECT_EQ(spool(), "ready:");
  EXPECT_EQ(corrupted_files(), 0u);
}

TEST_F(CheckPaths, OlderSpoolFileThatCannotBeWrittenIsFound) {
  write_chunks({kHeader, kHeader, kHeader});
  chmod(kSpool, 0777);
  chmod("orvik-spool/work/queue.dat", 0666);
  chmod("orvik-spool/work/queue.dat.1", 0444);
  chmod("orvik-spool/work/queue.dat.2", 0666);
  EXPECT_THAT(as_ordinary_user(spool), StartsWith("ready: warning spool-file\nspool file orvik-"
                                                  "spool/work/queue.dat.1 "));
}

TEST_F(CheckPaths, SpoolFilesThatThePlugInCallsCorruptedAreFound) {
  for (const std::string& start : {std::string(), kHeader.substr(1), kHeader.substr(0, 11)}) {
    write_chunks({kHeader, start});
    EXPECT_THAT(spool(), StartsWith("ready: warning spool-file-damaged\nspool file orvik-spool/"
                                    "work/queue.dat.1 "));
    EXPECT_EQ(corrupted_files(), 1u);
  }
  write_chunks({"", kHeader, ""});
  EXPECT_THAT(spool(), HasSubstr("queue.dat (and 1 more) "));
  EXPECT_EQ(corrupted_files(), 2u);
}

TEST_F(CheckPaths, FilesBehindAGapInTheSequenceAreNotThePlugIns) {
  write_chunks({kHeader, kHeader, ""});
  fs::remove("orvik-spool/work/queue.dat.1");
  EXPECT_EQ(spool(), "ready:");
  EXPECT_EQ(corrupted_files(), 0u);
}

TEST_F(CheckPaths, SpoolThatCannotBeReachedIsNotCalledMissing) {
  make(kSpool);
  chmod("orvik-spool", 0);
  const std::string said = as_ordinary_user(spool_in_closed_folder);
  EXPECT_THAT(said, StartsWith("disabled: error spool-not-reachable\nspool disabled: "));
  EXPECT_THAT(said, HasSubstr(std::strerror(EACCES)));
  EXPECT_EQ(as_ordinary_user(spool_itself), "disabled");
}

TEST_F(CheckPaths, SpoolThatIsALinkToItselfCannotBeReached) {
  make("orvik-spool");
  fs::create_symlink("work", kSpool);
  EXPECT_THAT(spool_in_closed_folder(), StartsWith("disabled: error spool-not-reachable\n"));
  EXPECT_EQ(spool_itself(), "disabled");
}

// -- The agent's identifier -----------------------------------------------------------------------

TEST_F(CheckPaths, IdentifierIsReadFromItsFile) {
  make(kPrefix);
  test::write_file(kIdFile, "Izy8GbaHOR9BwO9iK5Tqo8");
  EXPECT_EQ(agent(), "read:");
  EXPECT_EQ(last.source, "file");
  EXPECT_EQ(last.value, "Izy8GbaHOR9BwO9iK5Tqo8");
  EXPECT_EQ(last.path, kIdFile);
}

TEST_F(CheckPaths, IdentifierOfTheConstantWinsAndNoFileIsLookedAt) {
  EXPECT_EQ(agent("agent-7"), "the agent-id file is not looked at:");
  EXPECT_EQ(last.source, "script constant");
  EXPECT_EQ(last.value, "agent-7");
}

TEST_F(CheckPaths, DashAsIdentifierIsNoted) {
  EXPECT_THAT(agent("-"), HasSubstr(": note agent-id-dash\n"));
}

TEST_F(CheckPaths, LineEndInTheFileIsFound) {
  make(kPrefix);
  for (const char* id : {"abc\n", "abc\r\n", "abc\r"}) {
    test::write_file(kIdFile, id);
    EXPECT_THAT(agent(), StartsWith("read: warning agent-id-line-end\n"));
    EXPECT_EQ(last.value, id);
  }
}

TEST_F(CheckPaths, BlanksInTheIdentifierAreFound) {
  make(kPrefix);
  test::write_file(kIdFile, "abc def");
  EXPECT_THAT(agent(), StartsWith("read: warning agent-id-characters\n"));
  EXPECT_THAT(agent(" abc"), HasSubstr("warning agent-id-characters\nLogZMQ::zmq_agent_id "));
}

TEST_F(CheckPaths, FileThatIsTooLongIsFoundAndCut) {
  make(kPrefix);
  test::write_file(kIdFile, std::string(1024, 'x'));
  EXPECT_EQ(agent(), "read:");
  test::write_file(kIdFile, std::string(1025, 'x'));
  EXPECT_THAT(agent(), StartsWith("read: warning agent-id-too-long\n"));
  EXPECT_EQ(last.value.size(), 1024u);
}

TEST_F(CheckPaths, MissingFileWillBeMade) {
  make(kPrefix);
  EXPECT_THAT(agent(), StartsWith("will be made: note agent-id-will-be-made\n"));
  EXPECT_EQ(last.source, "generated");
  EXPECT_EQ(last.value, "");
}

TEST_F(CheckPaths, MissingFolderOfTheFileWillBeMadeToo) {
  EXPECT_THAT(agent(), StartsWith("will be made: note agent-id-will-be-made\n"));
}

TEST_F(CheckPaths, FileCannotBeKeptWithoutTheParentOfItsFolder) {
  Findings findings;
  const AgentIdReport report = check_agent_id(
      {"", "LogZMQ::zmq_agent_id", SettingOrigin::kNowhere, "LogZMQ::zmq_agent_id", ""},
      "missing/orvik", &findings);
  EXPECT_THAT(told(report.state, findings),
              StartsWith("cannot be kept: warning agent-id-not-kept\n"));
}

TEST_F(CheckPaths, FileCannotBeKeptInAFolderThatIsNone) {
  test::write_file(kPrefix, "");
  EXPECT_THAT(agent(), StartsWith("cannot be kept: warning agent-id-not-kept\n"));
}

TEST_F(CheckPaths, FileCannotBeKeptInAFolderThatIsNotWritable) {
  make(kPrefix);
  close_to_writers(kPrefix);
  EXPECT_THAT(as_ordinary_user([] { return agent(); }),
              StartsWith("cannot be kept: warning agent-id-not-kept\n"));
}

TEST_F(CheckPaths, EmptyFileWillBeWritten) {
  make(kPrefix);
  test::write_file(kIdFile, "");
  EXPECT_THAT(agent(), StartsWith("empty, will be written: note agent-id-empty\n"));
}

TEST_F(CheckPaths, EmptyFileThatCannotBeWrittenIsFound) {
  make(kPrefix);
  test::write_file(kIdFile, "");
  chmod(kIdFile, 0444);
  EXPECT_THAT(as_ordinary_user([] { return agent(); }),
              StartsWith("cannot be kept: warning agent-id-not-kept\n"));
}

TEST_F(CheckPaths, FileThatCannotBeReadIsFound) {
  make(kPrefix);
  test::write_file(kIdFile, "secret");
  chmod(kIdFile, 0);
  EXPECT_THAT(as_ordinary_user([] { return agent(); }),
              StartsWith("unreadable: error agent-id-unreadable\n"));
}

TEST_F(CheckPaths, FolderInThePlaceOfTheFileIsFound) {
  make(kIdFile);
  EXPECT_THAT(agent(), StartsWith("no file: warning agent-id-not-kept\n"));
}

TEST_F(CheckPaths, PipeInThePlaceOfTheFileIsFoundAndNotRead) {
  make(kPrefix);
  ASSERT_EQ(mkfifo(kIdFile, 0600), 0);
  // Opening it for reading would wait for ever.
  auto looking = std::async(std::launch::async, [] { return agent(); });
  const bool waits = looking.wait_for(std::chrono::seconds(20)) != std::future_status::ready;
  if (waits)
    close(open(kIdFile, O_WRONLY));
  EXPECT_FALSE(waits);
  EXPECT_THAT(looking.get(), StartsWith("no file: error agent-id-not-file\n"));
  EXPECT_EQ(last.source, "not known");
  EXPECT_EQ(last.value, "");
}

TEST_F(CheckPaths, DeviceInThePlaceOfTheFileIsFoundAndNotRead) {
  make(kPrefix);
  fs::create_symlink("/dev/zero", kIdFile);
  EXPECT_THAT(agent(), StartsWith("no file: error agent-id-not-file\n"));
  EXPECT_EQ(last.value, "");
}

TEST_F(CheckPaths, FileBehindALinkThatLeadsNowhereWillBeMade) {
  make(kPrefix);
  make("elsewhere");
  fs::create_symlink("../elsewhere/link", kIdFile);
  fs::create_symlink("agent.id", "elsewhere/link");
  EXPECT_THAT(agent(), StartsWith("will be made: note agent-id-will-be-made\n"));
  EXPECT_EQ(last.source, "generated");
}

TEST_F(CheckPaths, FileBehindALinkCannotBeKeptWithoutItsFolder) {
  make(kPrefix);
  fs::create_symlink("../elsewhere/agent.id", kIdFile);
  const std::string said = agent();
  EXPECT_THAT(said, StartsWith("cannot be kept: warning agent-id-not-kept\n"));
  EXPECT_THAT(said, HasSubstr("elsewhere is not a folder"));
}

TEST_F(CheckPaths, FileBehindALinkCannotBeKeptInAFolderThatIsNotWritable) {
  make(kPrefix);
  make("orvik-spool");
  close_to_writers("orvik-spool");
  fs::create_symlink("../orvik-spool/agent.id", kIdFile);
  EXPECT_THAT(as_ordinary_user([] { return agent(); }),
              StartsWith("cannot be kept: warning agent-id-not-kept\n"));
}

TEST_F(CheckPaths, FileThatCannotBeReachedIsNotCalledMissing) {
  make(kPrefix);
  fs::create_symlink("agent.id", kIdFile);
  const std::string said = agent();
  EXPECT_THAT(said, StartsWith("cannot be kept: warning agent-id-not-kept\n"));
  EXPECT_THAT(said, HasSubstr(std::strerror(ELOOP)));
}
