#include "PathChecks.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "AgentIdFile.h"
#include "SpoolInUse.h"
#include "SpoolReader.h"
#include "SpoolSurvey.h"
#include "Text.h"

namespace zmqwriter {

namespace fs = std::filesystem;

namespace {

/// What is at the path, where its links lead; `none` when it cannot be reached, for the reason
/// `why`.
fs::file_type kind_of(const std::string& path, std::string* why = nullptr) {
  std::error_code error;
  const fs::file_type kind = fs::status(path, error).type();
  if (why)
    *why = error.message();
  return kind;
}

std::string parent_of(const std::string& path) {
  const std::string parent = fs::path(path).parent_path().string();
  return parent.empty() ? "." : parent;
}

/// Why files cannot be created in the folder; empty when they can.
std::string why_not_writable(const std::string& folder) {
  return access(folder.c_str(), W_OK | X_OK) == 0 ? "" : std::strerror(errno);
}

const char kLost[] = ": events beyond the 500 in memory are lost while no server answers";
const char kHostUser[] = "the user that the host runs as";
const char kCheckAsHostUser[] = "; check as that user";

std::string create_for_host_user(const std::string& folder) {
  return "create " + folder + " for " + kHostUser;
}

// -- The spool ------------------------------------------------------------------------------------

std::string and_more(const std::vector<std::string>& files) {
  return "spool file " + files[0] +
         (files.size() > 1 ? " (and " + std::to_string(files.size() - 1) + " more)" : "");
}

/// Checks the chunk files: whether the agent can use those that its start finds, and whether any is
/// damaged. Returns whether none is.
bool check_chunk_files(const std::string& folder, Findings* findings) {
  const SpoolSurvey survey = survey_spool(folder);
  std::vector<std::string> closed, damaged;
  std::string reason, damage;
  for (const SurveyedFile& file : survey.files) {
    if (file.path == chunk_path(folder, 0) && !file.in_sequence) {
      add_warning(
          findings, "spool-file",
          "spool file " + file.path + " is not a regular file, so nothing can be stored" + kLost,
          "move it away");
    } else if (file.in_sequence && access(file.path.c_str(), R_OK | W_OK) != 0) {
      reason = std::strerror(errno);
      closed.push_back(file.path);
    } else if (!file.damage.empty()) {
      damage = damaged.empty() ? file.damage : damage;
      damaged.push_back(file.path);
    }
  }
  if (!closed.empty())
    add_warning(findings, "spool-file", and_more(closed) + " cannot be read and written: " + reason,
                std::string("give it to ") + kHostUser + kCheckAsHostUser);
  if (!damaged.empty())
    add_error(findings, "spool-damaged",
              and_more(damaged) + ": " + damage + records_at_stake(survey),
              "before the host starts, " + repair_advice(folder, survey));
  return damaged.empty();
}

/// Checks a folder that the agent can write to; returns the spool's state.
std::string check_spool_files(const std::string& folder, Findings* findings) {
  try {
    // The files of a running agent look damaged: its head file's header is written at its stop.
    const std::string users = other_spool_users(folder);
    if (!users.empty()) {
      add_error(findings, "spool-in-use",
                "the spool " + folder + " is in use by " + users +
                    ": two processes on one spool destroy each other's records",
                "start no other before that process has ended, and check again then");
      return "in use";
    }
    return check_chunk_files(folder, findings) ? "ready" : "needs repair";
  } catch (const std::runtime_error& error) {
    add_warning(findings, "spool-not-listed",
                std::string(error.what()) + ", so its files were not checked",
                std::string("give it to ") + kHostUser + kCheckAsHostUser);
    return "ready";
  }
}

/// Checks whether the plug-in can create the folder; it does not create the parent.
std::string check_missing_spool(const SpoolReport& spool, Findings* findings) {
  const auto disabled = [&](const std::string& id, const std::string& why,
                            const std::string& remedy) {
    add_error(findings, id, "spool disabled: " + why + kLost, remedy);
    return "disabled";
  };
  std::error_code error;
  if (fs::is_symlink(spool.folder, error))
    return disabled("spool-not-folder", spool.folder + " is a link to nothing", "make it a folder");
  const fs::file_type parent = kind_of(spool.parent);
  if (parent == fs::file_type::not_found)
    return disabled("spool-parent-missing",
                    "the parent " + spool.parent + " of the spool folder " + spool.folder +
                        " does not exist, and the plug-in does not create it",
                    create_for_host_user(spool.parent));
  if (parent != fs::file_type::directory)
    return disabled("spool-parent-not-folder",
                    "the parent " + spool.parent + " of the spool folder is not a folder",
                    "make " + spool.parent + " a folder");
  const std::string closed = why_not_writable(spool.parent);
  if (!closed.empty())
    return disabled("spool-parent-not-writable",
                    "the spool folder " + spool.folder +
                        " does not exist and cannot be created in " + spool.parent + ": " + closed,
                    create_for_host_user("it") + kCheckAsHostUser);
  return "will be made";
}

}  // namespace

SpoolReport check_spool(const std::string& folder, Findings* findings) {
  SpoolReport spool = {folder, parent_of(folder), "disabled"};
  std::string problem;
  const fs::file_type kind = kind_of(folder, &problem);
  const std::string closed = why_not_writable(folder);
  if (kind == fs::file_type::not_found) {
    spool.state = check_missing_spool(spool, findings);
  } else if (kind == fs::file_type::none) {
    add_error(
        findings, "spool-not-reachable",
        "spool disabled: " + folder + " cannot be reached: " + problem + kLost,
        std::string("give ") + kHostUser + " access to the folders above it" + kCheckAsHostUser);
  } else if (kind != fs::file_type::directory) {
    add_error(findings, "spool-not-folder",
              "spool disabled: " + folder + " is not a folder" + kLost,
              "move it away; the plug-in creates the folder");
  } else if (!closed.empty()) {
    spool.state = "not writable";
    add_error(findings, "spool-not-writable",
              "spool folder " + folder + " cannot be written: " + closed + kLost,
              std::string("give it to ") + kHostUser + kCheckAsHostUser);
  } else {
    spool.state = check_spool_files(folder, findings);
  }
  return spool;
}

void check_spool_access(const std::string& folder, Findings* findings) {
  std::error_code error;
  const fs::path path = fs::canonical(folder, error);
  struct stat status;
  if (error || stat(path.c_str(), &status) != 0 || (status.st_mode & S_IRWXO) == 0)
    return;
  for (fs::path above = path; above.has_relative_path();) {
    above = above.parent_path();
    struct stat closed;
    if (stat(above.c_str(), &closed) != 0 || (closed.st_mode & S_IXOTH) == 0)
      return;  // others do not get as far as the folder
  }
  add_warning(findings, "spool-open-to-others",
              "the spool folder " + folder + " may be " +
                  (status.st_mode & S_IWOTH ? "changed" : "read") + " by every user",
              "chmod o-rwx " + folder);
}

void check_spool_space(const SpoolReport& spool, int limit_mb, Findings* findings) {
  constexpr double kBytesOfMb = 1048576;
  constexpr double kNextToNothing_mb = 10;
  struct statvfs disk;
  if (statvfs(spool.folder.c_str(), &disk) != 0 && statvfs(spool.parent.c_str(), &disk) != 0)
    return;
  const double free_mb =
      static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize) / kBytesOfMb;
  const std::string text =
      "the disk of the spool " + spool.folder + " has " + formatted("%.1f MB", free_mb) + " free";
  const std::string remedy = "make room on that disk";
  if (free_mb < kNextToNothing_mb)
    add_error(findings, "spool-disk-full", text + kLost, remedy);
  else if (free_mb < limit_mb)
    add_warning(findings, "spool-disk-space",
                text + ", less than the " + std::to_string(limit_mb) +
                    " MB of the spool's limit; once it is full, events that are stored are lost",
                remedy);
}

// -- The agent's identifier -----------------------------------------------------------------------

namespace {

/// Checks an identifier that the plug-in uses unchanged. `where` is where it is set.
void check_identifier(const std::string& id, const std::string& where, Findings* findings) {
  const auto is_blank = [](unsigned char c) { return c <= ' ' || c == 0x7f; };
  if (id == "-")
    add_note(findings, "agent-id-dash",
             where +
                 " is '-': every event carries that as its agent, and the plug-in reports "
                 "\"Agent id is not set!\"",
             "set LogZMQ::zmq_agent_id, unless the agent is to have no name");
  else if (id.back() == '\n' || id.back() == '\r')
    add_warning(findings, "agent-id-line-end",
                where + " ends in a line end, which becomes part of the identifier",
                "write it without, e.g. with printf %s instead of echo");
  else if (std::any_of(id.begin(), id.end(), is_blank))
    add_warning(findings, "agent-id-characters",
                where + " holds blanks or control characters, which become part of the identifier",
                "remove them");
}

/// A new identifier cannot be stored, for the reason `why`.
void add_not_kept(const std::string& path, const std::string& why, AgentIdReport* report,
                  Findings* findings) {
  report->state = "cannot be kept";
  add_warning(
      findings, "agent-id-not-kept",
      "the agent-id file " + path + " cannot be kept: " + why +
          "; the agent gets another identifier at each start",
      create_for_host_user("the folder") + kCheckAsHostUser + ", or set LogZMQ::zmq_agent_id");
}

/// The path at which opening `path` would create a file: where its links lead.
std::string end_of_links(std::string path) {
  constexpr int kMoreThanAnySystemFollows = 100;
  std::error_code no_link;
  for (int left = kMoreThanAnySystemFollows; left > 0; --left) {
    const fs::path target = fs::read_symlink(path, no_link);
    if (no_link)
      break;
    path = (fs::path(path).parent_path() / target).string();
  }
  return path;
}

/// Why the missing file cannot be created; empty when it can. The plug-in creates the folder
/// `prefix`, but not its parent.
std::string why_not_created(const std::string& prefix, const std::string& path) {
  const std::string created = end_of_links(path);
  std::string folder = created == path ? prefix : parent_of(created);
  std::error_code error;
  if (created == path && !fs::exists(fs::symlink_status(folder, error)))
    folder = parent_of(prefix);
  if (kind_of(folder) != fs::file_type::directory)
    return folder + " is not a folder or does not exist";
  const std::string closed = why_not_writable(folder);
  return closed.empty() ? "" : folder + ": " + closed;
}

/// The plug-in reads nothing from the regular file at report->path.
void check_file_without_identifier(AgentIdReport* report, Findings* findings) {
  const std::string& path = report->path;
  struct stat status;
  if (stat(path.c_str(), &status) == 0 && status.st_size > 0) {
    report->state = "unreadable";
    add_error(findings, "agent-id-unreadable",
              "the agent-id file " + path +
                  " cannot be read: the plug-in will use a new identifier, and write it over the "
                  "old one if it may",
              std::string("let ") + kHostUser + " read it" + kCheckAsHostUser);
  } else if (access(path.c_str(), W_OK) != 0) {
    add_not_kept(path, "it cannot be written", report, findings);
  } else {
    report->state = "empty, will be written";
    add_note(
        findings, "agent-id-empty",
        "the agent-id file " + path + " is empty: the plug-in will write a new identifier to it",
        "nothing, if this agent is new");
  }
}

/// The plug-in will generate an identifier. `problem` says why the path cannot be reached.
void check_without_identifier(fs::file_type kind, const std::string& problem,
                              const std::string& prefix, AgentIdReport* report,
                              Findings* findings) {
  report->source = "generated";
  if (kind == fs::file_type::not_found) {
    const std::string why = why_not_created(prefix, report->path);
    if (!why.empty())
      return add_not_kept(report->path, why, report, findings);
    report->state = "will be made";
    add_note(findings, "agent-id-will-be-made",
             "there is no agent-id file " + report->path +
                 " yet: the plug-in will create it, with a new identifier",
             "nothing, if this agent is new");
  } else if (kind == fs::file_type::regular) {
    check_file_without_identifier(report, findings);
  } else if (kind == fs::file_type::none) {
    add_not_kept(report->path, "it cannot be reached: " + problem, report, findings);
  } else if (kind == fs::file_type::directory) {
    add_not_kept(report->path, "it is not a regular file", report, findings);
    report->state = "no file";
  } else {
    // Reading it here might never end.
    report->source = "not known";
    report->state = "no file";
    add_error(findings, "agent-id-not-file",
              "the agent-id file " + report->path +
                  " is a pipe, a device or a socket, and was not read: the plug-in opens it, may "
                  "wait without end, and uses what it reads as the identifier",
              "move it away");
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
  std::string problem;
  const fs::file_type kind = kind_of(report.path, &problem);
  if (kind == fs::file_type::regular)
    report.value = agent_id_file::read(report.path.c_str());
  if (report.value.empty()) {
    check_without_identifier(kind, problem, prefix, &report, findings);
    return report;
  }
  report.source = "file";
  report.state = "read";
  check_identifier(report.value, report.path, findings);
  struct stat status;
  if (stat(report.path.c_str(), &status) == 0 &&
      status.st_size > static_cast<off_t>(agent_id_file::kMaxLength))
    add_warning(findings, "agent-id-too-long",
                "the agent-id file " + report.path + " is longer than " +
                    std::to_string(agent_id_file::kMaxLength) +
                    " bytes, and the identifier is cut there",
                "write a shorter identifier");
  return report;
}

}  // namespace zmqwriter
