#include "SpoolSurvey.h"

#include <algorithm>

#include "EventJson.h"
#include "SpoolReader.h"
#include "Text.h"

namespace zmqwriter {

SpoolSurvey survey_spool(const std::string& folder) {
  const std::vector<std::uint32_t> numbers = find_chunks(folder);
  const std::size_t in_sequence = count_in_sequence(folder, numbers);
  SpoolSurvey survey;
  // `why_not` says why a start does not find the file; empty if it does.
  const auto add = [&](const ChunkFile& file, const std::string& why_not) {
    const Diagnosis diagnosis = diagnose(file, is_event);
    const std::size_t records = diagnosis.found.size();
    std::string damage = diagnosis.damage;
    if (!why_not.empty())
      damage += (damage.empty() ? "" : "; ") + why_not + ", not found by a start";
    const std::uint64_t live =
        records > 0 || file.has_signature() ? bytes_used(diagnosis.found) : 0;
    survey.files.push_back({file.path(), file.name(), file.size(), std::min(file.size(), live),
                            file.record_count(), records, why_not.empty(), damage,
                            diagnosis.damage.empty() || diagnosis.repairable});
    survey.records += records;
    survey.damaged = survey.damaged || !damage.empty();
    // The plug-in does not read a lone head without signature before it stores something.
    if (why_not.empty() && (in_sequence > 1 || file.has_signature()))
      survey.next_start += diagnosis.counted.size();
  };
  for (std::size_t i = 0; i < numbers.size(); ++i)
    add(ChunkFile(folder, numbers[i]), i < in_sequence ? "" : "after a gap in the numbers");
  for (const std::string& path : find_set_aside(folder))
    add(ChunkFile(path), "set aside because it could not be opened");
  return survey;
}

std::string records_at_stake(const SpoolSurvey& survey) {
  return survey.next_start >= survey.records
             ? ""
             : "; the next start finds " + std::to_string(survey.next_start) + " of " +
                   counted(survey.records, "record") + ", and may write over the others";
}

std::string repair_advice(const std::string& folder, const SpoolSurvey& survey) {
  const std::string repair = "zmqwriter spool repair " + folder;
  return std::all_of(survey.files.begin(), survey.files.end(),
                     [](const SurveyedFile& file) { return file.repairable; })
             ? "run '" + repair + "'"
             : "copy the folder, run '" + repair +
                   "', and move away the files that it cannot repair";
}

}  // namespace zmqwriter
