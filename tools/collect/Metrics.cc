#include "Metrics.h"

#include <sys/resource.h>
#include <unistd.h>
#ifdef __APPLE__
#include <mach/mach.h>
#endif

#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "ClientGate.h"
#include "EventJson.h"
#include "Files.h"
#include "MetricFamilies.h"

namespace zmqwriter {

namespace {

using prometheus::MetricType;
using Json = nlohmann::ordered_json;

/// By type, those of the schema that have not come too.
std::map<std::string, Tally> all_types(const CollectCounts& counts) {
  std::map<std::string, Tally> types = counts.by_type;
  for (unsigned number = 1; number < 256; ++number) {
    const std::string name = payload_type_name(static_cast<std::uint8_t>(number));
    if (!std::isdigit(static_cast<unsigned char>(name[0])))
      types[name];
  }
  return types;
}

/// What Prometheus' own clients tell of their process, as far as the system says it.
void add_process(MetricFamilies* families, double started) {
  families->Add("process_start_time_seconds", "Start of the process, since 1970.",
                MetricType::Gauge);
  families->Value(started);
  struct rusage usage;
  if (getrusage(RUSAGE_SELF, &usage) == 0) {
    families->Add("process_cpu_seconds_total", "Processor time spent.", MetricType::Counter);
    families->Value(static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                    static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6);
  }
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    families->Add("process_max_fds", "Limit of open files.", MetricType::Gauge);
    families->Value(limit.rlim_cur);
  }
  std::error_code error;
  std::filesystem::directory_iterator files("/dev/fd", error);
  if (!error) {
    families->Add("process_open_fds", "Open files.", MetricType::Gauge);
    families->Value(std::distance(begin(files), end(files)) - 1);  // without the one that lists
  }
  if (const std::uint64_t memory = memory_in_use()) {
    families->Add("process_resident_memory_bytes", "Memory in use.", MetricType::Gauge);
    families->Value(memory);
  }
}

void add_stream(MetricFamilies* families, const StreamFigures& stream) {
  families->Counter("stream_acknowledged_total", "Events that the engine has acknowledged.");
  families->Value(stream.acknowledged);
  families->Counter("stream_repeated_total", "Publications of events published before.");
  families->Value(stream.repeated);
  families->Counter("stream_refused_total", "Publications without acknowledgement, by reason.");
  for (std::size_t i = 0; i < kStreamTroubles.size(); ++i)
    families->Value(stream.refused[i], "reason", kStreamTroubles[i]);
  families->Counter("stream_too_large_total", "Events dropped: larger than the engine takes.");
  families->Value(stream.too_large);
  families->Gauge("stream_window_events", "Events that are not acknowledged.");
  families->Value(stream.window_events);
  families->Gauge("stream_window_bytes", "Bytes of these events.");
  families->Value(stream.window_bytes);
  families->Gauge("stream_oldest_seconds", "Age of the oldest of these events.");
  families->Value(stream.oldest_s);
  families->Counter("stream_stalled_seconds_total", "Time with a full window.");
  families->Value(stream.stalled_s);
  families->Counter("stream_reconnections_total", "Connections to the engine after the first.");
  families->Value(stream.reconnections);
  families->Gauge("stream_trouble", "1 while the engine takes nothing, by reason.");
  for (const char* const trouble : kStreamTroubles)
    families->Value(stream.trouble == trouble, "reason", trouble);
  families->Gauge("stream_server", "The engine's known servers; 1: connected to it.");
  for (const auto& [server, connected] : stream.servers)
    families->Value(connected, "server", server);
}

/// Null without a stream.
Json stream_json(const std::optional<StreamFigures>& stream) {
  if (!stream)
    return nullptr;
  Json refused = Json::object(), servers = Json::array();
  for (std::size_t i = 0; i < kStreamTroubles.size(); ++i)
    refused[kStreamTroubles[i]] = stream->refused[i];
  for (const auto& [server, connected] : stream->servers)
    servers.push_back({{"url", server}, {"connected", connected}});
  return {{"trouble", stream->trouble.empty() ? Json() : Json(stream->trouble)},
          {"acknowledged", stream->acknowledged},
          {"stored_before", stream->stored_before},
          {"repeated", stream->repeated},
          {"refused", refused},
          {"too_large", stream->too_large},
          {"window", {{"events", stream->window_events}, {"bytes", stream->window_bytes}}},
          {"oldest_s", stream->oldest_s},
          {"stalled_s", stream->stalled_s},
          {"reconnections", stream->reconnections},
          {"servers", servers}};
}

/// Of the output's disk; nothing where it is not known, and for standard output.
std::optional<std::uint64_t> output_disk_free(const std::string& path) {
  std::error_code error;
  if (path.empty())
    return std::nullopt;
  return disk_free(std::filesystem::absolute(path, error).parent_path().string());
}

Json traffic_json(const Traffic& traffic, double now) {
  const auto [events, bytes] = traffic.Rates(now);
  return {{"events", traffic.events},
          {"bytes", traffic.bytes},
          {"events_per_s", events},
          {"bytes_per_s", bytes}};
}

Json agent_json(const std::string& name, const Traffic& traffic, double now) {
  Json agent = {{"name", name}, {"last_event", traffic.last()}};
  agent.update(traffic_json(traffic, now));
  for (const Tally& minute : traffic.Minutes(now))
    agent["minutes"].push_back(minute.events);
  return agent;
}

}  // namespace

std::uint64_t memory_in_use() {
#ifdef __APPLE__
  mach_task_basic_info info = {};
  mach_msg_type_number_t count = MACH_TASK_BASIC_INFO_COUNT;
  return task_info(mach_task_self(), MACH_TASK_BASIC_INFO, reinterpret_cast<task_info_t>(&info),
                   &count) == KERN_SUCCESS
             ? info.resident_size
             : 0;
#else
  std::uint64_t virtual_pages, pages;
  return std::ifstream("/proc/self/statm") >> virtual_pages >> pages
             ? pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE))
             : 0;
#endif
}

std::string metrics_text(const Watched& collector) {
  const CollectCounts counts = collector.stats.Counts();
  const auto types = all_types(counts);
  MetricFamilies families("zmqwriter_collect_");
  families.Counter("events_total", "Events received, by payload type.");
  families.Values("type", types, &Tally::events);
  families.Counter("event_bytes_total", "Bytes of these events.");
  families.Values("type", types, &Tally::bytes);
  families.Counter("agent_events_total", "Events received, by agent.");
  families.Values("agent", counts.by_agent, &Tally::events);
  families.Counter("agent_event_bytes_total", "Bytes of these events.");
  families.Values("agent", counts.by_agent, &Tally::bytes);
  families.Gauge("agent_last_event_seconds", "Time of the agent's last event, since 1970.");
  for (const auto& [name, traffic] : counts.by_agent)
    if (name != kOtherAgents)
      families.Value(traffic.last(), "agent", name);
  families.Counter("bad_messages_total", "Messages that are not events, by reason.");
  families.Value(counts.empty, "reason", "empty");
  families.Value(counts.malformed, "reason", "malformed");
  families.Value(counts.multi_part, "reason", "multi_part");
  families.Counter("output_bytes_total", "Bytes written to the output.");
  families.Value(counts.written_bytes);
  families.Counter("output_files_finished_total", "Output files moved aside by rotation.");
  families.Value(counts.finished_files);
  families.Gauge("output_stalled", "1 while the output accepts nothing.");
  families.Value(counts.stalled);
  if (const auto free = output_disk_free(collector.output_path)) {
    families.Gauge("output_disk_free_bytes", "Room on the disk of the output.");
    families.Value(*free);
  }
  if (counts.stream)
    add_stream(&families, *counts.stream);
  families.Gauge("connections", "Open connections.");
  families.Value(counts.connections);
  families.Counter("handshakes_failed_total", "Connections that were refused, by reason.");
  for (std::size_t i = 0; i < kRefusals.size(); ++i)
    families.Value(counts.refused[i], "reason", kRefusals[i]);
  families.Counter("memory_limit_total", "Connections that were ended because of --max-memory.");
  families.Value(counts.ended_for_memory);
  if (collector.gate) {
    families.Counter("clients_total", "Clients that asked to connect, by answer.");
    families.Value(collector.gate->accepted(), "answer", "accepted");
    families.Value(collector.gate->denied(), "answer", "denied");
  }
  families.Gauge("build_info", "1, with the program's version.");
  families.Value(1, "version", ZMQWRITER_VERSION);
  add_process(&families, collector.started);
  return families.Text();
}

std::string status_json(const Watched& collector) {
  const CollectCounts counts = collector.stats.Counts();
  const double now = CollectStats::Now();
  Json types = Json::array(), agents = Json::array(), refused = Json::object();
  for (const auto& [name, tally] : counts.by_type)
    types.push_back({{"name", name}, {"events", tally.events}, {"bytes", tally.bytes}});
  Tally others;
  for (const auto& [name, traffic] : counts.by_agent) {
    if (name == kOtherAgents)
      others = traffic;
    else
      agents.push_back(agent_json(name, traffic, now));
  }
  for (std::size_t i = 0; i < kRefusals.size(); ++i)
    refused[kRefusals[i]] = counts.refused[i];
  const std::string& path = collector.output_path;
  const auto free = output_disk_free(path);
  Json output;
  if (collector.writes)
    output = {{"path", path.empty() ? Json() : Json(path)},
              {"format", collector.format},
              {"stalled", counts.stalled},
              {"bytes", counts.written_bytes},
              {"files_finished", counts.finished_files},
              {"disk_free", free ? Json(*free) : Json()}};
  const Json status = {
      {"version", ZMQWRITER_VERSION},
      {"started", collector.started},
      {"now", now},
      {"endpoints", counts.endpoints},
      {"output", output},
      {"stream", stream_json(counts.stream)},
      {"memory",
       {{"used", memory_in_use()},
        {"limit", collector.max_memory},
        {"connections_ended", counts.ended_for_memory}}},
      {"totals", traffic_json(counts.all, now)},
      {"types", types},
      {"bad_messages",
       {{"empty", counts.empty},
        {"malformed", counts.malformed},
        {"multi_part", counts.multi_part}}},
      {"connections", {{"open", counts.connections}, {"failed_handshakes", refused}}},
      {"clients", collector.gate ? Json({{"accepted", collector.gate->accepted()},
                                         {"denied", collector.gate->denied()}})
                                 : Json()},
      {"agents", agents},
      {"other_agents", {{"events", others.events}, {"bytes", others.bytes}}}};
  return status.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace zmqwriter
