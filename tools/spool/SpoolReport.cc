#include "SpoolReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Files.h"
#include "MetricFamilies.h"
#include "SpoolInUse.h"

namespace zmqwriter {

using Json = nlohmann::ordered_json;

std::string spool_as_json(const std::string& folder, const SpoolSurvey& survey) {
  Json files = Json::array();
  for (const SurveyedFile& file : survey.files)
    files.push_back({{"name", file.name},
                     {"size", file.size},
                     {"counted", file.counted},
                     {"walked", file.records},
                     {"live_bytes", file.live_bytes},
                     {"stale_bytes", file.size - file.live_bytes},
                     {"in_sequence", file.in_sequence},
                     {"damage", file.damage.empty() ? Json() : Json(file.damage)},
                     {"repairable", file.repairable}});
  const auto free = disk_free(folder);
  const Json spool = {{"folder", folder},
                      {"files", files},
                      {"records", survey.records},
                      {"next_start", survey.next_start},
                      {"damaged", survey.damaged},
                      {"processes", other_spool_processes(folder)},
                      {"disk_free", free ? Json(*free) : Json()}};
  return spool.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string spool_as_metrics(const std::string& folder, const SpoolSurvey& survey) {
  MetricFamilies families("zmqwriter_spool_");
  const auto gauge = [&](const std::string& name, const std::string& help, auto value) {
    families.Gauge(name, help);
    families.Value(value, "folder", folder);
  };
  std::uint64_t size = 0, live = 0, damaged = 0;
  for (const SurveyedFile& file : survey.files) {
    size += file.size;
    live += file.live_bytes;
    damaged += !file.damage.empty();
  }
  gauge("files", "Files of the spool.", survey.files.size());
  gauge("size_bytes", "Bytes of these files.", size);
  gauge("live_bytes", "Of these, bytes of records that wait to be sent.", live);
  gauge("records", "Records that the files hold.", survey.records);
  gauge("next_start_records", "Of these, what a start of the agent would find now.",
        survey.next_start);
  gauge("damaged_files",
        "Files that a start would not find whole; the file in use by an agent counts too.",
        damaged);
  gauge("processes", "Processes that have the files open.", other_spool_processes(folder).size());
  if (const auto free = disk_free(folder))
    gauge("disk_free_bytes", "Room on the disk of the spool.", *free);
  return families.Text();
}

}  // namespace zmqwriter
