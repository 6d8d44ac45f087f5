#include "PathChecks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

#include "AgentIdFile.h"
#include "SpoolReader.h"

namespace zmqwriter {

namespace fs = std::filesystem;

namespace {

enum class Kind {
  kMissing,  // or a link that leads nowhere
  kHidden,   // it cannot be looked at, for the reason in errno
  kFolder,
  kFile,
  kOther,
};

Kind kind_of(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0)
    return errno == ENOENT || errno == ENOTDIR ? Kind::kMissing : Kind::kHidden;
  return S_ISDIR(status.st_mode)   ? Kind::kFolder
         : S_ISREG(status.st_mode) ? Kind::kFile
                                   : Kind::kOther;
}

bool is_taken(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

std::string parent_of(const std::string& path) {
  const std::string parent = fs::path(path).parent_path().string();
  return parent.empty() ? "." : parent;
}

/// Why files cannot be made in the folder; empty when they can.
std::string why_closed(const std::string& folder) {
  return access(folder.c_str(), W_OK | X_OK) == 0 ? "" : std::strerror(errno);
}

const char kLost[] = ": events beyond the 500 in memory are lost while no server answers";
const char kSpoolDisabled[] = "spool disabled: ";

// -- The spool ------------------------------------------------------------------------------------

/// The chunk files that a start of the plug-in finds; each becomes the newest one in its turn, and
/// is written to then.
void check_files(const std::string& folder, Findings* findings) {
  const auto tell = [&](const std::string& id, const std::vector<std::string>& files,
                        const std::string& what, const std::string& remedy) {
    if (files.empty())
      return;
    const std::size_t others = files.size() - 1;
    findings->push_back({id, Severity::kWarning,
                         "spool file " + files[0] +
                             (others > 0 ? " (and " + std::to_string(others) + " more) " : " ") +
                             what,
                         remedy});
  };
  std::vector<std::string> closed, damaged;
  std::string reason;
  for (std::uint32_t number = 0;; ++number) {
    const std::string path = chunk_path(folder, number);
    if (kind_of(path) != Kind::kFile)
      break;
    if (access(path.c_str(), R_OK | W_OK) != 0) {
      reason = std::strerror(errno);
      closed.push_back(path);
    } else if (!ChunkFile(path).has_signature()) {
      damaged.push_back(path);
    }
  }
  const std::string head = chunk_path(folder, 0);
  if (is_taken(head) && kind_of(head) != Kind::kFile)
    tell("spool-file", {head},
         std::string("is no regular file, so nothing can be stored under that name") + kLost,
         "move it away");
  tell("spool-file", closed, "cannot be read and written: " + reason,
       "give it to the user that the host runs as; check as that user");
  tell(
      "spool-file-damaged", damaged,
      "does not begin as one: the plug-in will report \"Corrupted queue file\", send what it takes "
      "for events in it, and delete it",
      "before the host starts, copy the folder, run 'zmqwriter spool repair " + folder +
          "', and move away what that leaves as it is");
}

/// The folder is not there: the plug-in makes it, but not its parent.
std::string check_missing_spool(const SpoolReport& spool, Findings* findings) {
  const auto disabled = [&](const std::string& id, const std::string& why,
                            const std::string& remedy) {
    findings->push_back({id, Severity::kError, kSpoolDisabled + why + kLost, remedy});
    return "disabled";
  };
  if (is_taken(spool.folder))
    return disabled("spool-not-folder", spool.folder + " is a link that leads nowhere",
                    "make it a folder");
  switch (kind_of(spool.parent)) {
    case Kind::kMissing:
      return disabled("spool-parent-missing",
                      "the parent " + spool.parent + " of the spool folder " + spool.folder +
                          " does not exist, and the plug-in makes the last folder only",
                      "create " + spool.parent + " for the user that the host runs as");
    case Kind::kFolder:
      break;
    default:
      return disabled("spool-parent-not-folder",
                      "the parent " + spool.parent + " of the spool folder is no folder",
                      "make " + spool.parent + " a folder");
  }
  const std::string closed = why_closed(spool.parent);
  if (!closed.empty())
    return disabled("spool-parent-not-writable",
                    "the spool folder " + spool.folder + " does not exist and cannot be made in " +
                        spool.parent + ": " + closed,
                    "create it for the user that the host runs as; check as that user");
  return "will be made";
}

}  // namespace

SpoolReport check_spool(const std::string& folder, Findings* findings) {
  SpoolReport spool = {folder, parent_of(folder), "ready"};
  switch (kind_of(folder)) {
    case Kind::kMissing:
      spool.state = check_missing_spool(spool, findings);
      return spool;
    case Kind::kHidden:
      findings->push_back(
          {"spool-not-reachable", Severity::kError,
           kSpoolDisabled + folder + " cannot be looked at: " + std::strerror(errno) + kLost,
           "let the user that the host runs as into the folders above it; check as "
           "that user"});
      spool.state = "disabled";
      return spool;
    case Kind::kFolder:
      break;
    default:
      findings->push_back({"spool-not-folder", Severity::kError,
                           kSpoolDisabled + folder + " is no folder" + kLost,
                           "move it away; the plug-in makes the folder"});
      spool.state = "disabled";
      return spool;
  }
  const std::string closed = why_closed(folder);
  if (!closed.empty()) {
    findings->push_back({"spool-not-writable", Severity::kError,
                         "spool folder " + folder + " cannot be written: " + closed + kLost,
                         "give it to the user that the host runs as; check as that user"});
    spool.state = "not writable";
    return spool;
  }
  check_files(folder, findings);
  return spool;
}

// -- The agent's identifier -----------------------------------------------------------------------

namespace {

const char kNamedDash[] = "set LogZMQ::zmq_agent_id, unless the agent is to have no name";

/// Oddities of an identifier that is used as it stands.
void check_identifier(const std::string& id, const std::string& where, Findings* findings) {
  const auto is_line_end = [](char c) { return c == '\n' || c == '\r'; };
  const auto is_blank = [](unsigned char c) { return c <= ' ' || c == 0x7f; };
  if (id == "-")
    findings->push_back({"agent-id-dash", Severity::kNote,
                         where + " is '-': every event carries that as its agent, and the plug-in "
                                 "reports \"Agent id is not set!\"",
                         kNamedDash});
  else if (is_line_end(id.back()))
    findings->push_back({"agent-id-line-end", Severity::kWarning,
                         where + " ends in a line end, which becomes part of the identifier",
                         "write it without, e.g. with printf %s instead of echo"});
  else if (std::any_of(id.begin(), id.end(), is_blank))
    findings->push_back({"agent-id-characters", Severity::kWarning,
                         where + " holds blanks or control characters, which become part of the "
                                 "identifier",
                         "take them out"});
}

/// An identifier has to be generated: `why_not` says why it cannot be stored, empty when it can.
void check_storing(const std::string& path, const std::string& why_not, Findings* findings) {
  if (!why_not.empty())
    findings->push_back({"agent-id-not-kept", Severity::kWarning,
                         "the agent-id file " + path + " cannot be kept: " + why_not +
                             "; the agent gets another identifier at each start",
                         "create the folder for the user that the host runs as and check as that "
                         "user, or set LogZMQ::zmq_agent_id"});
}

/// Where a file would be made by that name: behind links that lead nowhere. More of them than any
/// system follows are not followed.
std::string end_of_links(std::string path) {
  std::error_code no_link;
  for (int left = 100; left > 0; --left) {
    const fs::path target = fs::read_symlink(path, no_link);
    if (no_link)
      break;
    path = (fs::path(path).parent_path() / target).string();
  }
  return path;
}

/// Why the file, which is not there, cannot be made.
std::string why_not_made(const std::string& prefix, const std::string& path) {
  const std::string made = end_of_links(path);
  const std::string folder = made == path ? prefix : parent_of(made);
  if (kind_of(folder) == Kind::kFolder) {
    const std::string closed = why_closed(folder);
    return closed.empty() ? "" : folder + ": " + closed;
  }
  if (made != path || is_taken(folder))
    return folder + " is no folder or does not exist";
  const std::string parent = parent_of(prefix);
  if (kind_of(parent) != Kind::kFolder)
    return parent + ", the parent of its folder, is no folder or does not exist";
  const std::string closed = why_closed(parent);
  return closed.empty() ? "" : parent + ": " + closed;
}

void check_missing_file(const std::string& prefix, AgentIdReport* report, Findings* findings) {
  const std::string why_not = why_not_made(prefix, report->path);
  check_storing(report->path, why_not, findings);
  report->state = why_not.empty() ? "will be made" : "cannot be kept";
  if (why_not.empty())
    findings->push_back({"agent-id-will-be-made", Severity::kNote,
                         "there is no agent-id file " + report->path +
                             " yet: the plug-in will make it, with a new identifier",
                         "nothing, if this agent is new"});
}

/// A regular file is there, and the plug-in gets nothing from it.
void check_file_without_identifier(AgentIdReport* report, Findings* findings) {
  const std::string& path = report->path;
  struct stat status;
  if (stat(path.c_str(), &status) == 0 && status.st_size > 0) {
    report->state = "unreadable";
    findings->push_back({"agent-id-unreadable", Severity::kError,
                         "the agent-id file " + path +
                             " cannot be read: the plug-in will use a new identifier, and write "
                             "it over the old one if it may",
                         "let the user that the host runs as read it; check as that user"});
  } else {
    const std::string why_not =
        access(path.c_str(), W_OK) == 0 ? "" : std::string("it cannot be written");
    report->state = why_not.empty() ? "empty, will be written" : "cannot be kept";
    check_storing(path, why_not, findings);
    if (why_not.empty())
      findings->push_back(
          {"agent-id-empty", Severity::kNote,
           "the agent-id file " + path + " is empty: the plug-in will write a new identifier to it",
           "nothing, if this agent is new"});
  }
}

/// The plug-in will get no identifier from the path; `why_hidden` is for one that is hidden.
void check_without_identifier(Kind kind, const std::string& why_hidden, const std::string& prefix,
                              AgentIdReport* report, Findings* findings) {
  report->source = "generated";
  switch (kind) {
    case Kind::kMissing:
      return check_missing_file(prefix, report, findings);
    case Kind::kFile:
      return check_file_without_identifier(report, findings);
    case Kind::kHidden:
      report->state = "cannot be kept";
      return check_storing(report->path, "it cannot be looked at: " + why_hidden, findings);
    case Kind::kFolder:
      report->state = "no file";
      return check_storing(report->path, "it is no regular file", findings);
    case Kind::kOther:
      // Reading it here might never end.
      report->source = "not known";
      report->state = "no file";
      findings->push_back({"agent-id-not-file", Severity::kError,
                           "the agent-id file " + report->path +
                               " is a pipe, a device or a socket, and was not read: the plug-in "
                               "opens it, may wait for ever, and takes what it gives for the "
                               "identifier",
                           "move it away"});
  }
}

}  // namespace

AgentIdReport check_agent_id(const Setting& constant, const std::string& prefix,
                             Findings* findings) {
  AgentIdReport report = {"script constant", prefix + agent_id_file::kName, constant.value, ""};
  if (!constant.value.empty()) {
    report.state = "the agent-id file is not looked at";
    check_identifier(report.value, constant.name, findings);
    return report;
  }
  const Kind kind = kind_of(report.path);
  const std::string why_hidden = std::strerror(errno);
  if (kind == Kind::kFile)
    report.value = agent_id_file::read(report.path.c_str());
  if (report.value.empty()) {
    check_without_identifier(kind, why_hidden, prefix, &report, findings);
    return report;
  }
  report.source = "file";
  report.state = "read";
  check_identifier(report.value, report.path, findings);
  struct stat status;
  if (stat(report.path.c_str(), &status) == 0 &&
      status.st_size > static_cast<off_t>(agent_id_file::kMaxLength))
    findings->push_back({"agent-id-too-long", Severity::kWarning,
                         "the agent-id file " + report.path + " is longer than " +
                             std::to_string(agent_id_file::kMaxLength) +
                             " bytes, and the identifier is cut there",
                         "write a shorter identifier"});
  return report;
}

}  // namespace zmqwriter
