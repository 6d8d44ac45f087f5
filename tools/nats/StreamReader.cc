#include "StreamReader.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "EventStream.h"
#include "NatsConnection.h"
#include "Output.h"
#include "RawEvents.h"
#include "StopSignals.h"
#include "Text.h"

namespace zmqwriter {

namespace {

using std::chrono::milliseconds;

constexpr std::int64_t kNanoseconds = 1000000000;
// An event that was not acknowledged is then delivered again. Longer than a batch takes to write.
constexpr std::int64_t kAcknowledgeWithin = 30 * kNanoseconds;
// Of all processes that share a durable consumer.
constexpr std::int64_t kMostUnacknowledged = 10000;
// The engine removes a consumer that is not durable when nobody has asked it for this long.
constexpr std::int64_t kForgottenAfter = 300 * kNanoseconds;
constexpr int kBatch = 256;
constexpr std::int64_t kBatchBytes = std::int64_t{8} << 20;  // and one event more
constexpr std::int64_t kWait = kNanoseconds / 2;
// Of such waits without an event, after this many the consumer is looked at.
constexpr int kLookEvery = 10;
constexpr milliseconds kShortestPause{100}, kLongestPause{5000};

using ConsumerInfo = NatsPtr<jsConsumerInfo, jsConsumerInfo_Destroy>;
using Subscription = NatsPtr<natsSubscription, natsSubscription_Destroy>;

struct Batch : natsMsgList {
  Batch() : natsMsgList{nullptr, 0} {}
  ~Batch() { natsMsgList_Destroy(this); }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
};

/// As 'collect --to --format json' publishes them.
bool is_json_event(std::string_view payload) {
  return payload.rfind("{\"uid\":", 0) == 0 && payload.find('\n') == std::string_view::npos &&
         nlohmann::json::accept(payload);
}

class StreamReader {
 public:
  explicit StreamReader(const ReadOptions& options)
      : options_(options),
        subject_(options.subject.empty() ? options.engine.prefix + ".>" : options.subject) {}
  ~StreamReader();
  int Run();

 private:
  bool durable() const { return !options_.durable.empty(); }
  void Connect();
  void FindDurable();
  void MakeConsumer();
  ConsumerInfo About();
  bool IsAllRead();
  void ReadBatch();
  bool Fetch(Batch* batch, bool wait);
  bool Take(natsMsg* message);
  void Acknowledge(const Batch& batch, const std::vector<std::uint64_t>& taken);
  void Await(const std::string& words);

  const ReadOptions options_;
  const std::string subject_;
  Output out_;
  std::uint64_t bad_ = 0;
  std::string problem_;  // that ends the reading

  std::string stream_;
  std::int64_t created_ = 0;
  std::uint64_t end_ = 0;      // the last event that was there at the start
  std::uint64_t last_ = 0;     // the last event that was taken
  std::uint64_t pending_ = 0;  // events behind it, of those that pass the filter
  std::uint64_t received_ = 0;
  int idle_ = 0;
  std::string consumer_;
  std::set<std::uint64_t> unconfirmed_;  // written, and perhaps not acknowledged
  bool lost_ = false;                    // the consumer, or what it has sent
  std::set<std::string> said_;           // since the last event, of troubles
  milliseconds pause_ = kShortestPause;
  NatsLibrary library_;
  std::unique_ptr<NatsConnection> engine_;
  std::uint64_t reconnections_ = 0;
  Subscription subscription_;
};

StreamReader::~StreamReader() {
  if (!durable() && !consumer_.empty() && engine_ && engine_->connected())
    js_DeleteConsumer(engine_->stream(), stream_.c_str(), consumer_.c_str(), nullptr, nullptr);
}

void StreamReader::Connect() {
  subscription_.reset();
  if (!engine_ || engine_->closed()) {
    engine_.reset();
    engine_ = std::make_unique<NatsConnection>(options_.engine);
  }
  engine_->ForgetProblem();
  reconnections_ = engine_->reconnections();
  const FoundStream found = find_stream(*engine_, subject_);
  if (found.name.empty())
    throw StreamError({StreamTrouble::kNoStream, "no stream takes the subjects '" + subject_ +
                                                     "'; 'collect --to ... --create-stream' makes "
                                                     "one"});
  if (!found.others.empty())
    throw std::runtime_error("the subjects '" + subject_ + "' are in several streams (" +
                             found.name + ", " + found.others +
                             "); name those of one with --subject");
  if (!durable() && found.retention == "workqueue")
    throw std::runtime_error("the stream " + found.name +
                             " removes what was read (workqueue): it needs --durable NAME");
  stream_ = found.name;
  if (found.created != created_) {  // else it is the one that was read before
    created_ = found.created;
    end_ = found.last_sequence;
    last_ = 0;
    consumer_.clear();
    unconfirmed_.clear();
  }
  pending_ = received_ = 0;
  if (durable())
    FindDurable();
  else
    MakeConsumer();
  jsSubOptions bound;
  jsSubOptions_Init(&bound);
  bound.Stream = stream_.c_str();
  bound.Consumer = consumer_.c_str();
  natsSubscription* made = nullptr;
  jsErrCode code = static_cast<jsErrCode>(0);
  const natsStatus status =
      js_PullSubscribe(&made, engine_->stream(), subject_.c_str(),
                       durable() ? consumer_.c_str() : nullptr, nullptr, &bound, &code);
  if (status != NATS_OK)
    throw_stream_error(*engine_, status, code);
  subscription_.reset(made);
  natsSubscription_SetPendingLimits(made, -1, -1);
  lost_ = false;
}

void StreamReader::FindDurable() {
  const bool known = !consumer_.empty();
  const std::string& name = options_.durable;
  jsErrCode code = static_cast<jsErrCode>(0);
  jsConsumerInfo* about = nullptr;
  natsStatus status =
      js_GetConsumerInfo(&about, engine_->stream(), stream_.c_str(), name.c_str(), nullptr, &code);
  const bool exists = status == NATS_OK;
  if (code == JSConsumerNotFoundErr) {
    if (known)
      throw StreamError({StreamTrouble::kOther, "the durable consumer " + name +
                                                    " was removed; a new start makes another, "
                                                    "which begins anew"});
    try {
      MakeConsumer();
      return;
    } catch (const StreamError&) {
      // Another process may have made it in the meantime.
      status = js_GetConsumerInfo(&about, engine_->stream(), stream_.c_str(), name.c_str(), nullptr,
                                  nullptr);
      if (status != NATS_OK)
        throw;
    }
  }
  if (status != NATS_OK)
    throw_stream_error(*engine_, status, code);
  const ConsumerInfo info(about);
  const jsConsumerConfig& config = *info->Config;
  const std::string filter = config.FilterSubject ? config.FilterSubject : "";
  const std::string start = "the durable consumer " + name + " of the stream " + stream_;
  if (filter != subject_ && !(filter.empty() && options_.subject.empty()))
    throw std::runtime_error(start + " has the filter '" + filter + "', not '" + subject_ +
                             "'; name another one with --durable");
  if (config.DeliverSubject || config.AckPolicy != js_AckExplicit)
    throw std::runtime_error(
        start +
        " is not one that gives events on demand and awaits an acknowledgement of each; "
        "name another one with --durable");
  if (exists && !known && options_.since_ns > 0)
    std::fprintf(stderr, "warning: %s exists and goes on where it was: --since has no effect\n",
                 start.c_str());
  consumer_ = name;
}

void StreamReader::MakeConsumer() {
  jsConsumerConfig config;
  jsConsumerConfig_Init(&config);
  config.FilterSubject = subject_.c_str();
  if (options_.since_ns > 0) {
    config.DeliverPolicy = js_DeliverByStartTime;
    config.OptStartTime = options_.since_ns;
  }
  if (durable()) {
    config.Durable = options_.durable.c_str();
    config.AckPolicy = js_AckExplicit;
    config.AckWait = kAcknowledgeWithin;
    config.MaxAckPending = kMostUnacknowledged;
  } else {
    config.AckPolicy = js_AckNone;
    config.InactiveThreshold = kForgottenAfter;
    config.Replicas = 1;
    if (last_ > 0) {
      config.DeliverPolicy = js_DeliverByStartSequence;
      config.OptStartTime = 0;
      config.OptStartSeq = last_ + 1;
    }
  }
  jsErrCode code = static_cast<jsErrCode>(0);
  jsConsumerInfo* about = nullptr;
  const natsStatus status =
      js_AddConsumer(&about, engine_->stream(), stream_.c_str(), &config, nullptr, &code);
  if (status != NATS_OK)
    throw_stream_error(*engine_, status, code);
  consumer_ = ConsumerInfo(about)->Name;
}

ConsumerInfo StreamReader::About() {
  jsErrCode code = static_cast<jsErrCode>(0);
  jsConsumerInfo* about = nullptr;
  const natsStatus status = js_GetConsumerInfo(&about, engine_->stream(), stream_.c_str(),
                                               consumer_.c_str(), nullptr, &code);
  if (status != NATS_OK)
    throw_stream_error(*engine_, status, code);
  return ConsumerInfo(about);
}

/// Whether all that was there at the start was read, by all who share the consumer.
bool StreamReader::IsAllRead() {
  if (!durable() && last_ >= end_)
    return true;
  if (pending_ > 0 && last_ < end_)
    return false;
  const ConsumerInfo info = About();
  if (durable())
    return (info->NumPending == 0 && info->NumAckPending == 0) || info->AckFloor.Stream >= end_;
  return info->NumPending == 0 && info->Delivered.Consumer == received_;
}

/// False without an event.
bool StreamReader::Fetch(Batch* batch, bool wait) {
  jsFetchRequest request;
  jsFetchRequest_Init(&request);
  request.Batch = wait ? 1 : kBatch;
  request.Expires = kWait;
  request.NoWait = !wait;
  request.MaxBytes = kBatchBytes + natsConnection_GetMaxPayload(engine_->get());
  const natsStatus status = natsSubscription_FetchRequest(batch, subscription_.get(), &request);
  if (status == NATS_OK)
    return true;
  if (status != NATS_TIMEOUT && status != NATS_NOT_FOUND)
    throw_stream_error(*engine_, status, 0);
  return false;
}

void StreamReader::ReadBatch() {
  Batch batch;
  if (!Fetch(&batch, false) && !Fetch(&batch, true)) {
    pending_ = 0;
    if (!engine_->connected())
      throw StreamError({StreamTrouble::kConnectionLost, engine_->last_problem()});
    if (++idle_ % kLookEvery == 0)
      About();
  }
  // What was under way is lost. A durable consumer delivers it again.
  lost_ = !durable() && engine_->reconnections() != reconnections_;
  std::vector<std::uint64_t> taken;
  for (int i = 0; i < batch.Count && !lost_ && !stop_requested() && Take(batch.Msgs[i]); ++i)
    taken.push_back(last_);
  out_.Flush();
  if (out_.failed())
    taken.clear();
  if (durable())
    Acknowledge(batch, taken);
}

/// Whether the event is done with.
bool StreamReader::Take(natsMsg* message) {
  jsMsgMetaData* about = nullptr;
  const natsStatus status = natsMsg_GetMetaData(&about, message);
  if (status != NATS_OK)
    throw_stream_error(*engine_, status, 0);
  const NatsPtr<jsMsgMetaData, jsMsgMetaData_Destroy> data(about);
  const std::uint64_t number = data->Sequence.Stream;
  lost_ = !durable() && data->Sequence.Consumer != received_ + 1;
  if (lost_)
    return false;
  if (unconfirmed_.erase(number) == 0) {
    const std::string_view payload(natsMsg_GetData(message),
                                   static_cast<std::size_t>(natsMsg_GetDataLength(message)));
    const EventMessage event(payload.data(), payload.size());
    const bool json = !event.valid() && is_json_event(payload);
    if (json && options_.format != "json") {
      problem_ = "stream " + stream_ + ": sequence " + std::to_string(number) +
                 ": was published as JSON, which only --format json can print";
      return false;
    }
    if (json) {
      out_.WriteLine(payload);
    } else if (!event.valid()) {
      out_.Note("stream " + stream_ + ": sequence " + std::to_string(number) + ": " +
                event.problem());
      ++bad_;
    } else if (options_.format == "raw") {
      std::string record;
      append_raw_event(&record, payload);
      out_.Write(record);
    } else {
      out_.WriteLine(options_.format == "text" ? event.Text() : event.Json(options_.json_bytes));
    }
  }
  ++received_;
  last_ = number;
  pending_ = data->NumPending;
  return true;
}

/// The answer to the last acknowledgement means that the engine has those before it, too. What was
/// not taken is given back at once.
void StreamReader::Acknowledge(const Batch& batch, const std::vector<std::uint64_t>& taken) {
  const int count = static_cast<int>(taken.size());
  for (int i = 0; i < batch.Count; ++i) {
    if (i >= count)
      natsMsg_Nak(batch.Msgs[i], nullptr);
    else if (i + 1 < count)
      natsMsg_Ack(batch.Msgs[i], nullptr);
    else if (natsMsg_AckSync(batch.Msgs[i], nullptr, nullptr) != NATS_OK)
      unconfirmed_.insert(taken.begin(), taken.end());
  }
}

/// Says what is the matter, each once, and waits.
void StreamReader::Await(const std::string& words) {
  lost_ = true;
  if (said_.insert(words).second)
    std::fprintf(stderr, "warning: reading pauses: %s\n",
                 words.empty() ? "the connection is lost" : words.c_str());
  const auto end = std::chrono::steady_clock::now() + pause_;
  pause_ = std::min(2 * pause_, kLongestPause);
  while (std::chrono::steady_clock::now() < end && !stop_requested())
    std::this_thread::sleep_for(kShortestPause / 2);
}

int StreamReader::Run() {
  Connect();
  while (!stop_requested() && problem_.empty() && !out_.failed()) {
    try {
      if (lost_)
        Connect();
      if (!options_.follow && IsAllRead())
        break;
      ReadBatch();
      if (!said_.empty())
        std::fprintf(stderr, "reading again\n");
      said_.clear();
      pause_ = kShortestPause;
    } catch (const std::runtime_error& error) {
      Await(error.what());
    }
  }
  out_.Finish();
  if (!problem_.empty())
    throw std::runtime_error(problem_);
  if (bad_ > 0)
    std::fprintf(stderr, "stream %s: %s no event\n", stream_.c_str(),
                 bad_ == 1 ? "1 message is" : (counted(bad_, "message") + " are").c_str());
  return bad_ > 0;
}

}  // namespace

int read_stream(const ReadOptions& options) {
  catch_stop_signals();
  return StreamReader(options).Run();
}

}  // namespace zmqwriter
