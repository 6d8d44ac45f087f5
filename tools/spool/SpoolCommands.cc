#include "Commands.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "EventJson.h"
#include "Files.h"
#include "MetricFamilies.h"
#include "OptionChecks.h"
#include "Output.h"
#include "RawEvents.h"
#include "SpoolInUse.h"
#include "SpoolReader.h"
#include "SpoolRepair.h"
#include "SpoolSurvey.h"
#include "Text.h"

namespace zmqwriter {

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;

// list

struct Options {
  std::string folder;
  std::string copy_folder;
  JsonBytes json_bytes = JsonBytes::kSurrogate;
  bool json = false;
  bool prometheus = false;
  bool raw = false;
  bool dry_run = false;
};

using Json = nlohmann::ordered_json;

/// Bytes that are not valid UTF-8 are replaced.
std::string as_json(const std::string& folder, const SpoolSurvey& survey) {
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

/// Each figure has the label `folder`.
std::string as_metrics(const std::string& folder, const SpoolSurvey& survey) {
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

int list_spool(const Options& options) {
  const std::string& folder = options.folder;
  const SpoolSurvey survey = survey_spool(folder);
  Output out;
  if (options.json || options.prometheus) {
    out.Write(options.json ? as_json(folder, survey) : as_metrics(folder, survey));
    out.Finish();
    return survey.damaged && options.json ? kFailure : kSuccess;
  }
  const auto line = [&out](const std::string& name, const std::string& size,
                           const std::string& records, const std::string& found,
                           const std::string& live, const std::string& stale,
                           const std::string& damage) {
    char text[256];
    std::snprintf(text, sizeof text, "%-20s %12s %10s %10s %12s %12s  ", name.c_str(), size.c_str(),
                  records.c_str(), found.c_str(), live.c_str(), stale.c_str());
    out.WriteLine(text + damage);
  };
  line("file", "size", "records", "walked", "live bytes", "stale bytes", "damage");
  for (const SurveyedFile& file : survey.files)
    line(file.name, std::to_string(file.size), std::to_string(file.counted),
         std::to_string(file.records), std::to_string(file.live_bytes),
         std::to_string(file.size - file.live_bytes), file.damage.empty() ? "-" : file.damage);
  out.Note(counted(survey.files.size(), "file") + ", " + counted(survey.records, "record") +
           "; the next start of the plug-in finds " + std::to_string(survey.next_start));
  const std::string users = other_spool_users(folder);
  if (!users.empty())
    out.Note("in use by " + users + ": what it has stored is counted in the header when it stops");
  out.Finish();
  return survey.damaged ? kFailure : kSuccess;
}

// dump

/// Prints the records of a file; returns whether each was complete and, without --raw, an event.
bool dump_file(const ChunkFile& file, const Options& options, Output* out) {
  bool good = true;
  const auto complain = [&](const std::string& problem) {
    out->Note(file.path() + ": " + problem);
    good = false;
  };
  if (!file.problem().empty())
    complain("cannot be read: " + file.problem());
  const Walk walk = file.CountedWalk();
  if (walk.records.size() < file.record_count())
    complain("ends after " + std::to_string(walk.records.size()) + " of the " +
             counted(file.record_count(), "record") + " that its header counts");
  for (auto record = walk.records.rbegin(); record != walk.records.rend() && !out->failed();
       ++record) {
    const std::string payload = file.Payload(*record);
    std::string problem;
    if (options.raw) {
      std::string framed;
      append_raw_event(&framed, payload);
      out->Write(framed);
      continue;
    }
    const std::string json =
        event_to_json(payload.data(), payload.size(), &problem, options.json_bytes);
    if (problem.empty())
      out->WriteLine(json);
    else
      complain("record of " + std::to_string(record->length) + " bytes at offset " +
               std::to_string(record->offset) + ": " + problem);
  }
  return good;
}

int dump_spool(const Options& options) {
  const std::string& folder = options.folder;
  std::vector<std::uint32_t> numbers = find_chunks(folder);
  numbers.resize(count_in_sequence(folder, numbers));
  Output out;
  bool good = true;
  for (const std::uint32_t number : numbers)
    good = dump_file(ChunkFile(folder, number), options, &out) && good;
  out.Finish();
  return good ? kSuccess : kFailure;
}

// repair

bool is_in_use(const std::string& folder, const std::vector<std::uint32_t>& numbers) {
  std::vector<std::string> paths;
  for (const std::uint32_t number : numbers)
    paths.push_back(ChunkFile(folder, number).path());
  const SpoolUsers users = find_spool_users(paths);
  if (!users.doubt.empty())
    std::fprintf(stderr, "Warning: an agent may be using the spool: %s.\n", users.doubt.c_str());
  for (const long process : users.processes)
    std::fprintf(stderr, "%s: in use by process %ld; stop it first\n", folder.c_str(), process);
  return !users.processes.empty();
}

int repair_spool(const std::string& folder, const std::string& copy_folder, bool dry_run) {
  const std::vector<std::uint32_t> numbers = find_chunks(folder);
  if (is_in_use(folder, numbers))
    return kFailure;
  const RepairPlan plan = plan_repair(folder, numbers, is_event);

  Output out;
  const std::string would = dry_run ? "would be " : "";
  for (const HeaderRepair& repair : plan.headers) {
    const std::string copy = dry_run ? "" : repair_header(repair, copy_folder);
    out.WriteLine(repair.path + ": header " + would + "set to " +
                  counted(repair.record_count, "record") + ", " + std::to_string(repair.used_size) +
                  " bytes (a start found " + counted(repair.records_before, "record") + ")");
    if (!dry_run)
      out.WriteLine("  kept as it was in " + copy);
  }
  for (const Renaming& renaming : plan.renamings) {
    if (!dry_run)
      rename_chunk(renaming);
    out.WriteLine(renaming.from + ": " + would + "renamed to " + renaming.to);
  }
  if (plan.headers.empty() && plan.renamings.empty() && plan.refused.empty())
    out.WriteLine("nothing to repair in " + counted(numbers.size(), "file"));
  for (const std::string& refused : plan.refused)
    out.Note("left as it is: " + refused);
  out.Finish();
  return plan.refused.empty() ? kSuccess : kFailure;
}

}  // namespace

void add_spool_command(CLI::App& app, int* exit_code) {
  CLI::App* const command =
      app.add_subcommand("spool", "List, print or repair the messages that wait on disk");
  command->require_subcommand(1);
  const auto options = std::make_shared<Options>();
  const auto add = [&](const std::string& name, const std::string& description) {
    CLI::App* const subcommand = command->add_subcommand(name, description);
    subcommand->add_option("FOLDER", options->folder, "Folder of the chunk files (queue.dat, ...)")
        ->required()
        ->type_name("");
    return subcommand;
  };

  CLI::App* const list = add("list", "List the files, one line for each");
  list->footer(
      "The columns: size of the file; 'records' that its header counts; 'walked', those\n"
      "that the file holds; bytes of records that wait to be sent (live) and other bytes\n"
      "(stale); damage, or '-'. Exit status 1 when there is damage, but not with\n"
      "--prometheus. Changes nothing.");
  CLI::Option* const json =
      list->add_flag("--json", options->json,
                     "Print one JSON object: for each file the records that are 'counted' and "
                     "'walked' (see below), what the next start finds, processes that use the "
                     "spool, free bytes of its disk");
  list->add_flag("--prometheus", options->prometheus,
                 "Print metrics for the text files of Prometheus' node exporter")
      ->excludes(json);
  list->callback([options, exit_code] { *exit_code = list_spool(*options); });

  CLI::App* const dump =
      add("dump", "Print the events that the agent's next start finds, newest first");
  dump->footer(
      "One JSON object per line, in the order in which they would be sent. Exit status 1 when\n"
      "a record is not an event. Changes nothing.");
  add_json_bytes_option(dump, &options->json_bytes);
  dump->add_flag("--raw", options->raw,
                 "Write the bytes instead: each record after its length, a 32-bit little-endian "
                 "number (zmqwriter decode reads this)");
  dump->callback([options, exit_code] { *exit_code = dump_spool(*options); });

  CLI::App* const repair = add(
      "repair", "Repair the files after an unclean stop, so that the next start finds all events");
  repair->footer(
      "Sets the files' headers to the records that the files hold, and closes gaps in the\n"
      "files' numbers. Keeps a copy of each file whose header it sets, FILE.before-repair.\n"
      "Stop the agent first. Exit status 1 when something could not be repaired.");
  repair
      ->add_option("--copy-to", options->copy_folder,
                   "Folder for the copies, e.g. on another disk when the spool's is full (default: "
                   "the spool's)")
      ->type_name("DIR");
  repair->add_flag("--dry-run", options->dry_run, "Only print what would be done");
  repair->callback([options, exit_code] {
    *exit_code = repair_spool(options->folder, options->copy_folder, options->dry_run);
  });
}

}  // namespace zmqwriter
