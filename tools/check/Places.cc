#include "Places.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "AgentIdFile.h"
#include "SpoolFormat.h"

namespace {

enum class Kind { kMissing, kFolder, kFile, kOther };

Kind kind_of(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0)
    return Kind::kMissing;
  return S_ISDIR(status.st_mode)   ? Kind::kFolder
         : S_ISREG(status.st_mode) ? Kind::kFile
                                   : Kind::kOther;
}

bool is_taken(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

std::string parent_of(const std::string& path) {
  const std::string parent = std::filesystem::path(path).parent_path().string();
  return parent.empty() ? "." : parent;
}

/// Why files cannot be made in the folder; empty when they can.
std::string why_closed(const std::string& folder) {
  return access(folder.c_str(), W_OK | X_OK) == 0 ? "" : std::strerror(errno);
}

const char kLost[] = ": events beyond the 500 in memory are lost while no server answers";
const char kSpoolDisabled[] = "spool disabled: ";

// -- The spool ------------------------------------------------------------------------------------

/// The newest chunk file; the others are only renamed and read once they have become that.
void judge_head_file(const std::string& folder, Findings* findings) {
  char name[spool_format::kPathSize];
  spool_format::chunk_path(folder.c_str(), 0, name);
  if (!is_taken(name))
    return;
  const auto add = [&](const std::string& what, const std::string& remedy) {
    findings->push_back(
        {"spool-file", Severity::kWarning, std::string("spool file ") + name + " " + what, remedy});
  };
  if (kind_of(name) != Kind::kFile)
    add(std::string("is no regular file, so nothing can be stored under that name") + kLost,
        "move it away");
  else if (access(name, R_OK | W_OK) != 0)
    add(std::string("cannot be read and written: ") + std::strerror(errno),
        "give it to the user that the host runs as; check as that user");
}

/// The folder is not there: the plug-in makes it, but not its parent.
std::string judge_missing_spool(const SpoolReport& spool, Findings* findings) {
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

SpoolReport judge_spool(const std::string& folder, Findings* findings) {
  SpoolReport spool = {folder, parent_of(folder), "ready"};
  switch (kind_of(folder)) {
    case Kind::kMissing:
      spool.state = judge_missing_spool(spool, findings);
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
  judge_head_file(folder, findings);
  return spool;
}

// -- The agent's identifier -----------------------------------------------------------------------

namespace {

const char kNamedDash[] = "set LogZMQ::zmq_agent_id, unless the agent is to have no name";

/// Oddities of an identifier that is used as it stands.
void judge_identifier(const std::string& id, const std::string& where, Findings* findings) {
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
void judge_storing(const std::string& path, const std::string& why_not, Findings* findings) {
  if (!why_not.empty())
    findings->push_back({"agent-id-not-kept", Severity::kWarning,
                         "the agent-id file " + path + " cannot be kept: " + why_not +
                             "; the agent gets another identifier at each start",
                         "create the folder for the user that the host runs as and check as that "
                         "user, or set LogZMQ::zmq_agent_id"});
}

/// Why the file, which is not there, cannot be made.
std::string why_not_made(const std::string& prefix) {
  if (kind_of(prefix) == Kind::kFolder) {
    const std::string closed = why_closed(prefix);
    return closed.empty() ? "" : prefix + ": " + closed;
  }
  if (is_taken(prefix))
    return prefix + " is no folder";
  const std::string parent = parent_of(prefix);
  if (kind_of(parent) != Kind::kFolder)
    return parent + ", the parent of its folder, is no folder or does not exist";
  const std::string closed = why_closed(parent);
  return closed.empty() ? "" : parent + ": " + closed;
}

void judge_missing_file(const std::string& prefix, AgentIdReport* report, Findings* findings) {
  const std::string why_not = why_not_made(prefix);
  judge_storing(report->path, why_not, findings);
  report->state = why_not.empty() ? "will be made" : "cannot be kept";
  if (why_not.empty())
    findings->push_back({"agent-id-will-be-made", Severity::kNote,
                         "there is no agent-id file " + report->path +
                             " yet: the plug-in will make it, with a new identifier",
                         "nothing, if this agent is new"});
}

/// The file is there, and the plug-in gets nothing from it.
void judge_useless_file(AgentIdReport* report, Findings* findings) {
  const std::string& path = report->path;
  struct stat status;
  if (kind_of(path) != Kind::kFile) {
    report->state = "no file";
    judge_storing(path, "it is no regular file", findings);
  } else if (stat(path.c_str(), &status) == 0 && status.st_size > 0) {
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
    judge_storing(path, why_not, findings);
    if (why_not.empty())
      findings->push_back(
          {"agent-id-empty", Severity::kNote,
           "the agent-id file " + path + " is empty: the plug-in will write a new identifier to it",
           "nothing, if this agent is new"});
  }
}

}  // namespace

AgentIdReport judge_agent_id(const Setting& constant, const std::string& prefix,
                             Findings* findings) {
  AgentIdReport report = {"script constant", prefix + agent_id_file::kName, constant.value, ""};
  if (!constant.value.empty()) {
    report.state = "the agent-id file is not looked at";
    judge_identifier(report.value, constant.name, findings);
    return report;
  }
  report.value = agent_id_file::read(report.path.c_str());
  if (report.value.empty()) {
    report.source = "generated";
    if (is_taken(report.path))
      judge_useless_file(&report, findings);
    else
      judge_missing_file(prefix, &report, findings);
    return report;
  }
  report.source = "file";
  report.state = "read";
  judge_identifier(report.value, report.path, findings);
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
