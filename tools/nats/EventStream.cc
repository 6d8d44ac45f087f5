#include "EventStream.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace zmqwriter {

namespace {

constexpr std::int64_t kNanoseconds = 1000000000;
// How long an engine recognises the id of an event that is published again.
constexpr std::int64_t kRepeatWindow = 120 * kNanoseconds;
constexpr const char* kRetentions[] = {"limits", "interest", "workqueue"};

/// Whether `taken` matches all that `subjects` does, which does not end with '>'.
bool takes(std::string_view taken, std::string_view subjects) {
  while (taken != ">") {
    const std::size_t end = taken.find('.'), other_end = subjects.find('.');
    const std::string_view token = taken.substr(0, end);
    if ((token != "*" && token != subjects.substr(0, other_end)) ||
        (end == std::string::npos) != (other_end == std::string::npos))
      return false;
    if (end == std::string::npos)
      return true;
    taken.remove_prefix(end + 1);
    subjects.remove_prefix(other_end + 1);
  }
  return true;
}

using StreamInfo = NatsPtr<jsStreamInfo, jsStreamInfo_Destroy>;

}  // namespace

void throw_stream_error(const NatsConnection& engine, natsStatus status, int error_code) {
  if (engine.refused())
    throw StreamError({StreamTrouble::kNotAuthorised, engine.last_problem()});
  throw StreamError(stream_problem(status, error_code, nats_problem(status)));
}

StreamProblem stream_problem(natsStatus status, int error_code, const std::string& words) {
  const std::string text = words.empty() ? natsStatus_GetText(status) : words;
  switch (error_code) {
    case JSStreamNotFoundErr:
      return {StreamTrouble::kNoStream, text};
    case JSStreamStoreFailedErr:
      return {StreamTrouble::kFull, "the stream is full (" + text + ")"};
    case JSAccountResourcesExceededErr:
    case JSInsufficientResourcesErr:
    case JSMemoryResourcesExceededErr:
    case JSStorageResourcesExceededErr:
      return {StreamTrouble::kFull, "the servers have no room left (" + text + ")"};
    case JSClusterNotAvailErr:
    case JSClusterNotLeaderErr:
    case JSClusterIncompleteErr:
    case JSStreamOfflineErr:
      return {StreamTrouble::kNoQuorum, "too few servers of the cluster run (" + text + ")"};
    case JSNotEnabledErr:
    case JSNotEnabledForAccountErr:
      return {StreamTrouble::kOther, text + "; start the servers with --jetstream"};
    default:
      break;
  }
  switch (status) {
    case NATS_NO_RESPONDERS:
      return {StreamTrouble::kNoStream, "no stream takes these subjects, or JetStream is off"};
    case NATS_TIMEOUT:
      return {StreamTrouble::kNoQuorum, "no answer in time, as when too few servers run"};
    case NATS_NOT_PERMITTED:
    case NATS_CONNECTION_AUTH_FAILED:
      return {StreamTrouble::kNotAuthorised, text};
    case NATS_CONNECTION_CLOSED:
    case NATS_CONNECTION_DISCONNECTED:
    case NATS_INSUFFICIENT_BUFFER:
    case NATS_STALE_CONNECTION:
    case NATS_IO_ERROR:
    case NATS_NO_SERVER:
      return {StreamTrouble::kConnectionLost, text};
    default:
      return {StreamTrouble::kOther, text};
  }
}

FoundStream find_stream(const NatsConnection& engine, const std::string& subjects, int wait_ms) {
  jsOptions options;
  jsOptions_Init(&options);
  options.Wait = wait_ms;
  options.Stream.Info.SubjectsFilter = subjects.c_str();
  jsErrCode code = static_cast<jsErrCode>(0);
  jsStreamNamesList* names = nullptr;
  natsStatus status = js_StreamNames(&names, engine.stream(), &options, &code);
  const NatsPtr<jsStreamNamesList, jsStreamNamesList_Destroy> held(names);
  FoundStream found;
  if (status == NATS_NOT_FOUND || (status == NATS_OK && names->Count == 0))
    return found;
  if (status != NATS_OK)
    throw_stream_error(engine, status, code);
  found.name = names->List[0];
  for (int i = 1; i < names->Count; ++i)
    found.others += (i > 1 ? ", " : "") + std::string(names->List[i]);
  jsStreamInfo* about = nullptr;
  options.Stream.Info.SubjectsFilter = nullptr;
  status = js_GetStreamInfo(&about, engine.stream(), found.name.c_str(), &options, &code);
  if (status != NATS_OK)
    throw_stream_error(engine, status, code);
  const StreamInfo info(about);
  const jsStreamConfig& config = *info->Config;
  const std::string events = subjects.substr(0, subjects.find('>')) + "*.*";  // type and agent
  found.takes_all = std::any_of(config.Subjects, config.Subjects + config.SubjectsLen,
                                [&](const char* taken) { return takes(taken, events); });
  found.limits = {config.Replicas, std::max<std::int64_t>(config.MaxAge / kNanoseconds, 0),
                  std::max<std::int64_t>(config.MaxBytes, 0),
                  std::max<std::int64_t>(config.MaxMsgs, 0)};
  found.retention = kRetentions[config.Retention];
  found.discards_old = config.Discard == js_DiscardOld;
  found.in_memory = config.Storage == js_MemoryStorage;
  found.max_message = config.MaxMsgSize;
  found.duplicates_s = config.Duplicates / kNanoseconds;
  found.created = info->Created;
  found.first_time = info->State.FirstTime;
  found.last_time = info->State.LastTime;
  found.messages = info->State.Msgs;
  found.bytes = info->State.Bytes;
  found.last_sequence = info->State.LastSeq;
  if (info->Cluster) {
    found.leader = info->Cluster->Leader ? info->Cluster->Leader : "";
    found.led = !found.leader.empty();
    for (int i = 0; i < info->Cluster->ReplicasLen; ++i)
      found.replicas_behind += !info->Cluster->Replicas[i]->Current;
  }
  return found;
}

std::vector<std::string> stream_differences(const FoundStream& stream, const StreamLimits& limits) {
  std::vector<std::string> differences;
  const auto differs = [&](const char* what, std::int64_t has, std::int64_t wanted) {
    if (has != wanted)
      differences.push_back("the stream " + stream.name + " has " + what + "=" +
                            std::to_string(has) + ", not " + std::to_string(wanted) +
                            ": it stays as it is");
  };
  if (stream.limits.replicas < limits.replicas)
    differs("replicas", stream.limits.replicas, limits.replicas);
  if (stream.retention != "limits")
    differences.push_back("the stream " + stream.name + " has the retention " + stream.retention +
                          ": events may be removed when consumers have them");
  if (stream.discards_old)
    differences.push_back("the stream " + stream.name +
                          " deletes its oldest events when it is full");
  if (stream.in_memory)
    differences.push_back("the stream " + stream.name + " is not on disk");
  differs("max-age (s)", stream.limits.max_age_s, limits.max_age_s);
  differs("max-bytes", stream.limits.max_bytes, limits.max_bytes);
  differs("max-msgs", stream.limits.max_msgs, limits.max_msgs);
  return differences;
}

std::string partly_taken(const FoundStream& stream, const std::string& prefix) {
  return "the stream " + stream.name + " takes only some of the subjects '" + prefix + ".>'" +
         (stream.others.empty() ? "" : ", others " + stream.others) +
         ": events that no stream takes wait in the collector, and stop it when they fill its "
         "window";
}

namespace {

void create_stream(const NatsConnection& engine, const std::string& prefix,
                   const StreamLimits& limits) {
  std::string name = prefix;
  std::replace(name.begin(), name.end(), '.', '-');
  const std::string subjects = prefix + ".>";
  const char* subject = subjects.c_str();
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  config.Name = name.c_str();
  config.Subjects = &subject;
  config.SubjectsLen = 1;
  config.Storage = js_FileStorage;
  config.Discard = js_DiscardNew;  // to delete what nobody has read yet would lose it
  config.Replicas = limits.replicas;
  config.MaxAge = limits.max_age_s * kNanoseconds;
  config.MaxBytes = limits.max_bytes > 0 ? limits.max_bytes : -1;
  config.MaxMsgs = limits.max_msgs > 0 ? limits.max_msgs : -1;
  config.Duplicates = config.MaxAge > 0 ? std::min(config.MaxAge, kRepeatWindow) : kRepeatWindow;
  jsErrCode code = static_cast<jsErrCode>(0);
  const natsStatus status = js_AddStream(nullptr, engine.stream(), &config, nullptr, &code);
  if (status != NATS_OK)
    throw_stream_error(engine, status, code);
}

}  // namespace

std::optional<StreamProblem> stream_missing(NatsConnection* engine, const std::string& prefix,
                                            const std::optional<StreamLimits>& create,
                                            int wait_ms) {
  const char* step = "look for";
  try {
    FoundStream stream = find_stream(*engine, prefix + ".>", wait_ms);
    if (!stream.name.empty()) {
      if (!stream.takes_all)
        std::fprintf(stderr, "warning: %s\n", partly_taken(stream, prefix).c_str());
      if (create)
        for (const std::string& difference : stream_differences(stream, *create))
          std::fprintf(stderr, "warning: %s\n", difference.c_str());
    } else if (!create) {
      return StreamProblem{StreamTrouble::kNoStream,
                           "no stream takes the subjects '" + prefix +
                               ".>'; make one with --create-stream, e.g. replicas=3,max-age=7d"};
    } else {
      step = "make";
      create_stream(*engine, prefix, *create);
      stream = find_stream(*engine, prefix + ".>", wait_ms);
      std::fprintf(stderr, "made the stream %s for the subjects %s.>\n", stream.name.c_str(),
                   prefix.c_str());
    }
  } catch (const StreamError& error) {
    engine->ForgetProblem();
    if (error.trouble != StreamTrouble::kNotAuthorised || create)
      return StreamProblem{error.trouble,
                           std::string("cannot ") + step + " the stream: " + error.what()};
    // Who may publish need not be allowed to look.
    std::fprintf(stderr, "warning: not allowed to look whether there is a stream: %s\n",
                 error.what());
  }
  return std::nullopt;
}

std::optional<StreamProblem> reason_of(const StreamProblem& problem, NatsConnection* engine,
                                       const std::string& prefix, int wait_ms) {
  const std::string missing_right = engine->refused() ? engine->last_problem() : "";
  engine->ForgetProblem();  // the next attempt shows whether it is still missing
  if (!missing_right.empty())
    return StreamProblem{StreamTrouble::kNotAuthorised, missing_right};
  try {
    const FoundStream stream = find_stream(*engine, prefix + ".>", wait_ms);
    if (stream.name.empty())
      return StreamProblem{StreamTrouble::kNoStream,
                           "no stream takes the subjects '" + prefix +
                               ".>'; make one (--create-stream does at the next start)"};
    if (!stream.led)
      return StreamProblem{StreamTrouble::kNoQuorum,
                           "the stream has no leader: too few of its servers run"};
    return std::nullopt;
  } catch (const StreamError& error) {
    if (error.trouble != StreamTrouble::kNotAuthorised)
      return StreamProblem{error.trouble, error.what()};
    engine->ForgetProblem();  // who may publish need not be allowed to look
    return problem;
  }
}

}  // namespace zmqwriter
