#include "EngineCheck.h"

#include <algorithm>
#include <chrono>

#include "EventStream.h"
#include "NatsConnection.h"
#include "PullSocket.h"
#include "Text.h"

namespace zmqwriter {

namespace {

constexpr double kNearlyFull = 0.9;
constexpr double kSoon_s = 86400;
// A rate over a shorter time says little.
constexpr double kShortestSpan_s = 60;
constexpr std::int64_t kNanoseconds = 1000000000;
// As that of the streams that collectors make.
constexpr std::int64_t kRepeatWindow_s = 120;

/// Connects to each by itself; returns those that answer.
std::vector<std::string> try_servers(const NatsOptions& options, EngineReport* report,
                                     Findings* findings) {
  std::vector<std::string> good;
  NatsOptions one = options;
  for (const std::string& server : options.servers) {
    one.servers = {server};
    const auto start = std::chrono::steady_clock::now();
    std::string problem;
    try {
      const NatsConnection connection(one);
      good.push_back(server);
    } catch (const std::runtime_error& error) {
      problem = error.what();
      add_error(findings, "server-not-connected", problem,
                "start the server, or leave it out of --to");
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    report->servers.push_back({server, problem, took.count()});
  }
  return good;
}

/// Of the events so far, since the oldest that is still there.
void tell_room(const FoundStream& stream, StreamReport* report) {
  const double span_s =
      static_cast<double>(stream.last_time - stream.first_time) / static_cast<double>(kNanoseconds);
  if (stream.discards_old || stream.messages < 2 || span_s < kShortestSpan_s)
    return;
  bool limited = false;
  double full_in_s = 1e18;
  report->ages_first = stream.limits.max_age_s > 0;
  const auto tell = [&](std::uint64_t has, std::int64_t limit) {
    if (limit <= 0)
      return;
    const double rate = static_cast<double>(has) / span_s;
    limited = true;
    full_in_s = std::min(full_in_s, (static_cast<double>(limit) - static_cast<double>(has)) / rate);
    report->ages_first =
        report->ages_first &&
        rate * static_cast<double>(stream.limits.max_age_s) <= static_cast<double>(limit);
  };
  tell(stream.bytes, stream.limits.max_bytes);
  tell(stream.messages, stream.limits.max_msgs);
  if (limited && !report->ages_first)
    report->full_in_s = std::max(full_in_s, 0.0);
}

void check_stream(const FoundStream& stream, const std::string& prefix, std::size_t servers,
                  const StreamReport& report, Findings* findings) {
  for (const std::string& difference : stream_differences(stream, stream.limits))
    add_warning(findings, "stream-may-lose-events", difference,
                "change it with the engine's tools, or use another --prefix");
  if (!stream.takes_all)
    add_warning(findings, "stream-takes-some", partly_taken(stream, prefix),
                "give it the subjects '" + prefix + ".>'");
  if (!stream.led)
    add_error(findings, "stream-without-leader",
              "the stream " + stream.name + " has no leader, so it takes nothing",
              "start more servers of the cluster: most of those with a replica must run");
  if (stream.replicas_behind > 0)
    add_warning(findings, "replicas-behind",
                counted(static_cast<std::uint64_t>(stream.replicas_behind), "replica") +
                    " of the stream " + stream.name + " away or behind",
                "start the servers that are down; look at their logs");
  if (servers > 1 && stream.limits.replicas == 1)
    add_note(findings, "single-replica",
             "the stream " + stream.name +
                 " has one replica: what is on a server that is lost is "
                 "lost",
             "make it with --create-stream replicas=3");
  const auto used = [](std::uint64_t has, std::int64_t limit) {
    return limit > 0 ? static_cast<double>(has) / static_cast<double>(limit) : 0;
  };
  const double share = std::max(used(stream.bytes, stream.limits.max_bytes),
                                used(stream.messages, stream.limits.max_msgs));
  if (!stream.discards_old &&
      (share >= kNearlyFull || (report.full_in_s && *report.full_in_s < kSoon_s)))
    add_warning(findings, "stream-nearly-full",
                "the stream " + stream.name + " is " + formatted("%.0f %%", 100 * share) + " full" +
                    (report.full_in_s
                         ? ", and wholly in " + formatted("%.1f hours", *report.full_in_s / 3600)
                         : "") +
                    "; then collectors receive nothing",
                "raise its limit, or remove what consumers have read");
  if (stream.limits.max_bytes == 0 && stream.limits.max_age_s == 0 && stream.limits.max_msgs == 0)
    add_note(findings, "stream-unlimited",
             "the stream " + stream.name +
                 " has no limit: it grows until the disks of its servers "
                 "are full",
             "give it max-bytes or max-age");
  if (stream.duplicates_s < kRepeatWindow_s)
    add_warning(findings, "short-duplicate-window",
                "the stream " + stream.name + " remembers ids for " +
                    std::to_string(stream.duplicates_s) +
                    " s: an event that is published again later is stored twice",
                "raise its duplicate window to 2 minutes");
}

/// A message that names another stream as the one expected, which none has: the engine checks the
/// right to publish, and the stream refuses to store it.
void check_publishing(const NatsConnection& engine, const std::string& subject,
                      EngineReport* report, Findings* findings) {
  jsPubOptions options;
  jsPubOptions_Init(&options);
  options.ExpectStream = "none (a check)";
  jsErrCode code = static_cast<jsErrCode>(0);
  const natsStatus status =
      js_Publish(nullptr, engine.stream(), subject.c_str(), nullptr, 0, &options, &code);
  const std::string words = nats_problem(status);
  if (engine.refused())
    report->may_publish = false;
  else if (code == JSStreamNotMatchErr)
    report->may_publish = true;
  if (engine.refused())
    add_error(findings, "publish-not-allowed", engine.last_problem(),
              "permit the user to publish to " + report->subjects);
  else if (code != JSStreamNotMatchErr)
    // The library takes it for JetStream being off that nobody answers, but there is the stream.
    add_error(findings, "publish-fails",
              "publishing to " + subject + " fails: " +
                  stream_problem(status, status == NATS_NO_RESPONDERS ? 0 : code, words).words,
              "look at the stream and at the logs of the servers");
}

}  // namespace

EngineReport check_engine(const NatsOptions& options, Findings* findings) {
  const NatsLibrary library;
  EngineReport report;
  report.subjects = options.prefix + ".>";
  NatsOptions usable = options;
  usable.servers = try_servers(options, &report, findings);
  if (usable.servers.empty())
    return report;
  NatsConnection engine(usable);
  report.largest_message = natsConnection_GetMaxPayload(engine.get());
  try {
    const FoundStream stream = find_stream(engine, report.subjects);
    if (stream.name.empty()) {
      add_error(findings, "stream-missing",
                "no stream takes the subjects '" + report.subjects +
                    "'; without one it cannot be told whether the user may publish",
                "start a collector with --create-stream, e.g. --create-stream "
                "replicas=3,max-age=7d");
      return report;
    }
    StreamReport about = {stream.name,
                          stream.limits.replicas,
                          stream.leader,
                          stream.messages,
                          stream.bytes,
                          stream.limits.max_msgs,
                          stream.limits.max_bytes,
                          stream.limits.max_age_s,
                          stream.duplicates_s,
                          false,
                          std::nullopt};
    tell_room(stream, &about);
    check_stream(stream, options.prefix, options.servers.size(), about, findings);
    report.stream = about;
    if (stream.max_message >= 0)
      report.largest_message = std::min<std::int64_t>(report.largest_message, stream.max_message);
  } catch (const StreamError& error) {
    if (error.trouble == StreamTrouble::kNotAuthorised)
      add_warning(findings, "stream-not-shown",
                  std::string("not allowed to look for the stream: ") + error.what(),
                  "permit $JS.API.STREAM.NAMES and $JS.API.STREAM.INFO.>; collectors that need "
                  "not make the stream work without");
    else
      add_error(findings, "stream-unknown",
                std::string("cannot look for the stream: ") + error.what(),
                "look at the logs of the servers");
    engine.ForgetProblem();
  }
  if (report.largest_message < static_cast<std::int64_t>(PullSocket::kLargestMessage))
    add_note(findings, "large-events",
             "events of more than " + std::to_string(report.largest_message) +
                 " bytes are dropped and counted; collectors receive up to " +
                 std::to_string(PullSocket::kLargestMessage),
             "raise max_payload of the servers, and the stream's limit if it has one");
  check_publishing(engine, options.prefix + ".GeneralData._", &report, findings);
  return report;
}

}  // namespace zmqwriter
