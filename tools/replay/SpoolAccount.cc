#include "SpoolAccount.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "SpoolInUse.h"
#include "SpoolSurvey.h"
#include "Text.h"

namespace zmqwriter {

namespace {

bool exists(const std::string& folder) {
  struct stat status;
  return stat(folder.c_str(), &status) == 0;
}

std::string records(std::int64_t number) {
  return counted(static_cast<std::uint64_t>(number), "record");
}

const char kDestroyed[] = ", and two processes on one spool destroy each other's records";

/// What keeps the spool from being used, and what to do; empty if nothing does.
std::string problem_of(const std::string& folder, const SpoolSurvey& survey) {
  const std::string users = other_spool_users(folder);
  if (!users.empty())
    return folder + ": in use by " + users + kDestroyed + ": stop it first";
  for (const SurveyedFile& file : survey.files)
    if (!file.damage.empty())
      return file.path + ": " + file.damage + records_at_stake(survey) + ": first " +
             repair_advice(folder, survey);
  return "";
}

}  // namespace

void SpoolAccount::Begin(bool ignore) {
  if (!exists(folder_))
    return;  // the plug-in makes it
  const SpoolSurvey survey = survey_spool(folder_);
  records_before_ = static_cast<std::int64_t>(survey.records);
  const std::string problem = problem_of(folder_, survey);
  if (!problem.empty() && !ignore)
    throw std::runtime_error(problem + "; --ignore-spool starts all the same");
  if (!problem.empty())
    std::fprintf(stderr, "warning: %s\n", problem.c_str());
}

bool SpoolAccount::End(std::int64_t unsent, std::int64_t stored, std::uint64_t repeated) const {
  const std::int64_t on_disk = PrintRecordsOnDisk();
  const std::int64_t lost = records_before_ + unsent - on_disk;
  const std::int64_t lost_on_disk = std::min(lost, records_before_ + stored - on_disk);
  if (lost > 0)
    std::fprintf(stderr, "%s: %s, neither sent nor on disk\n", LostWord(), records(lost).c_str());
  if (lost_on_disk > 0)
    std::fprintf(stderr,
                 "of these, the spool had taken %s: its disk was full, it is disabled, or another "
                 "process has used it\n",
                 records(lost_on_disk).c_str());
  PrintRepeated(repeated);
  return on_disk == 0 && lost <= 0;
}

void SpoolAccount::EndWithoutStop(std::int64_t unsent, std::uint64_t repeated) const {
  const std::int64_t on_disk = PrintRecordsOnDisk();
  const std::int64_t lost = std::max<std::int64_t>(records_before_ + unsent - on_disk, 0);
  std::fprintf(stderr, "%s: at most %s, neither sent nor on disk\n", LostWord(),
               records(lost).c_str());
  PrintRepeated(repeated);
}

void SpoolAccount::PrintRepeated(std::uint64_t repeated) {
  if (repeated > 0)
    std::fprintf(stderr, "the next start sends again what was read last: at most %s\n",
                 counted(repeated, "record").c_str());
}

const char* SpoolAccount::LostWord() const {
  return read_again_ ? "to be read again" : "lost";
}

std::int64_t SpoolAccount::PrintRecordsOnDisk() const {
  if (!exists(folder_))
    return 0;
  const std::string users = other_spool_users(folder_);
  if (!users.empty())
    std::fprintf(stderr, "warning: %s: in use by %s%s\n", folder_.c_str(), users.c_str(),
                 kDestroyed);
  const auto on_disk = static_cast<std::int64_t>(survey_spool(folder_).records);
  if (on_disk > 0)
    std::fprintf(stderr, "on disk: %s in %s\n", records(on_disk).c_str(), folder_.c_str());
  return on_disk;
}

}  // namespace zmqwriter
