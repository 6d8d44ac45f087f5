#include "PublicationWindow.h"

#include <algorithm>
#include <utility>

namespace zmqwriter {

namespace {

// Once the window is full, there is room again when this share of it is in use.
constexpr double kRoomAgain = 0.875;
// Memory of larger events is given back.
constexpr std::size_t kLargestKept = 4096;

double seconds(std::chrono::steady_clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

/// Whether less than this share of the window is in use.
bool PublicationWindow::IsBelow(double share) const {
  return static_cast<double>(events_.size()) < share * static_cast<double>(most_events_) &&
         static_cast<double>(bytes_) < share * static_cast<double>(most_bytes_);
}

bool PublicationWindow::HasRoomAgain() const {
  return events_.empty() || IsBelow(kRoomAgain);
}

bool PublicationWindow::HasRoom(std::chrono::milliseconds longest) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!full_since_) {
    if (IsBelow(1))
      return true;
    full_since_ = Clock::now();
  }
  const bool room = room_.wait_for(lock, longest, [this] { return HasRoomAgain(); });
  const auto now = Clock::now();
  stalled_s_ += seconds(now - *full_since_);
  full_since_ = room ? std::nullopt : std::optional<Clock::time_point>(now);
  return room;
}

/// In the place of a finished event, if there is one.
void PublicationWindow::Add(const std::string& id, std::string_view raw, bool former, bool waits) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (finished_.empty()) {
    Events fresh;
    fresh.emplace();
    finished_.push_back(fresh.extract(fresh.begin()));
  }
  Events::node_type place = std::move(finished_.back());
  finished_.pop_back();
  place.key() = id;
  Event& event = place.mapped();
  event.raw = raw;
  event.since = Clock::now();
  event.former = former;
  event.published = !waits;
  Mark(&event, waits, false);
  ++counts_.held;
  counts_.former += former;
  bytes_ += raw.size();
  events_.insert(events_.end(), std::move(place));
}

void PublicationWindow::Mark(Event* event, bool waiting, bool refused) {
  counts_.waiting += waiting;
  counts_.waiting -= std::exchange(event->waiting, waiting);
  counts_.refused += refused;
  counts_.refused -= std::exchange(event->refused, refused);
}

void PublicationWindow::Remove(Events::iterator event) {
  Mark(&event->second, false, false);
  bytes_ -= event->second.raw.size();
  --counts_.held;
  counts_.former -= event->second.former;
  Events::node_type place = events_.extract(event);
  if (place.mapped().raw.capacity() <= kLargestKept)
    finished_.push_back(std::move(place));
  if (HasRoomAgain())
    room_.notify_one();
}

bool PublicationWindow::TakeWaiting(bool around, std::string* id, std::string* raw) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto waits = [](const auto& event) { return event.second.waiting; };
  auto next = std::find_if(events_.upper_bound(*id), events_.end(), waits);
  if (next == events_.end() && around)
    next = std::find_if(events_.begin(), events_.end(), waits);
  if (next == events_.end())
    return false;
  Event& event = next->second;
  Mark(&event, false, event.refused);
  repeated_ += std::exchange(event.published, true);
  *id = next->first;
  *raw = event.raw;
  return true;
}

void PublicationWindow::ReturnAll() {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [id, event] : events_)
    Mark(&event, true, true);
}

void PublicationWindow::Acknowledge(const std::string& id, bool stored_before) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto event = events_.find(id);
  if (event == events_.end())
    return;  // of an earlier publication
  Remove(event);
  ++acknowledged_;
  stored_before_ += stored_before;
}

void PublicationWindow::Refuse(const std::string& id) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto event = events_.find(id);
  if (event != events_.end())
    Mark(&event->second, true, true);
}

std::optional<std::string> PublicationWindow::Drop(const std::string& id) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto event = events_.find(id);
  if (event == events_.end())
    return std::nullopt;
  std::string raw = event->second.raw;
  Remove(event);
  return raw;
}

void PublicationWindow::AwaitEmpty(std::chrono::milliseconds longest) {
  std::unique_lock<std::mutex> lock(mutex_);
  room_.wait_for(lock, longest, [this] { return events_.empty(); });
}

PublicationWindow::Counts PublicationWindow::counts() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return counts_;
}

std::vector<UnsentEvent> PublicationWindow::events() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<UnsentEvent> all;
  for (const auto& [id, event] : events_)
    all.push_back({id, event.raw});
  return all;
}

void PublicationWindow::NoteFigures(StreamFigures* figures) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  figures->acknowledged = acknowledged_;
  figures->stored_before = stored_before_;
  figures->repeated = repeated_;
  figures->stalled_s = stalled_s_;
  figures->window_events = events_.size();
  figures->window_bytes = bytes_;
  figures->oldest_s = events_.empty() ? 0 : seconds(Clock::now() - events_.begin()->second.since);
}

}  // namespace zmqwriter
