#include "CallLog.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace test {

CallLog& CallLog::instance() {
  static CallLog log;
  return log;
}

void CallLog::add(const std::string& line) {
  std::shared_ptr<std::function<void(const std::string&)>> listener;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
    listener = listener_;
  }
  if (listener)
    (*listener)(line);
}

void CallLog::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

std::vector<std::string> CallLog::all() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> CallLog::story() const {
  std::vector<std::string> result;
  std::lock_guard<std::mutex> lock(mutex_);
  std::copy_if(lines_.begin(), lines_.end(), std::back_inserter(result),
               [](const std::string& line) { return line.compare(0, 1, ".") != 0; });
  return result;
}

std::vector<std::string> CallLog::starting_with(const std::string& start) const {
  std::vector<std::string> result;
  std::lock_guard<std::mutex> lock(mutex_);
  std::copy_if(lines_.begin(), lines_.end(), std::back_inserter(result),
               [&](const std::string& line) { return line.compare(0, start.size(), start) == 0; });
  return result;
}

void CallLog::listen(std::function<void(const std::string&)> listener) {
  std::lock_guard<std::mutex> lock(mutex_);
  listener_ = listener
                  ? std::make_shared<std::function<void(const std::string&)>>(std::move(listener))
                  : nullptr;
}

}  // namespace test
