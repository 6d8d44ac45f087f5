#include "JetStreamOptions.h"

#include <time.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>

#include "Text.h"

namespace zmqwriter {

namespace {

constexpr std::int64_t kLongestAge_s = std::int64_t{36500} * 86400;
const std::map<char, std::int64_t> kTimes = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};

/// A positive number with a unit, of which `units` gives the factor; -1 if it is none.
std::int64_t with_unit(const std::string& text, const std::map<char, std::int64_t>& units) {
  const auto unit = text.empty() ? units.end() : units.find(text.back());
  const std::string digits = text.substr(0, text.size() - (unit != units.end()));
  const auto number = number_in<std::int64_t>(digits);
  const std::int64_t factor = unit == units.end() ? 1 : unit->second;
  return number && *number > 0 && *number <= INT64_MAX / factor ? *number * factor : -1;
}

}  // namespace

StreamLimits stream_limits(const std::string& text) {
  StreamLimits limits;
  const std::map<char, std::int64_t> none,
      sizes = {{'K', 1 << 10}, {'M', 1 << 20}, {'G', 1 << 30}, {'T', std::int64_t{1} << 40}};
  struct Limit {
    std::int64_t* value;
    const std::map<char, std::int64_t>& units;
  };
  std::map<std::string, Limit> known = {{"replicas", {&limits.replicas, none}},
                                        {"max-age", {&limits.max_age_s, kTimes}},
                                        {"max-bytes", {&limits.max_bytes, sizes}},
                                        {"max-msgs", {&limits.max_msgs, none}}};
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part, ',');) {
    const auto limit = known.find(part.substr(0, part.find('=')));
    const std::int64_t value =
        limit == known.end()
            ? -1
            : with_unit(part.substr(std::min(part.size(), limit->first.size() + 1)),
                        limit->second.units);
    if (value < 0)
      throw std::invalid_argument("'" + part +
                                  "' must be replicas=N, max-age=N[s|m|h|d], max-bytes=N[K|M|G|T] "
                                  "or max-msgs=N, each at most once");
    *limit->second.value = value;
    known.erase(limit);
  }
  if (limits.replicas > 5)
    throw std::invalid_argument("replicas must be 1 to 5");
  if (limits.max_age_s > kLongestAge_s)
    throw std::invalid_argument("max-age must be at most 36500d");
  return limits;
}

std::int64_t start_time(const std::string& text) {
  const std::int64_t span = with_unit(text, kTimes);
  const double start = span < 0 ? time_in(text, true).value_or(-1)
                                : static_cast<double>(time(nullptr)) - static_cast<double>(span);
  // Beyond that the nanoseconds do not fit.
  if (start <= 0 || start > 9e9 || (span >= 0 && number_in<std::int64_t>(text)))
    throw std::invalid_argument("'" + text +
                                "' must be a time, like 2026-11-22T07:35:58Z or 2026-11-22, or how "
                                "long ago, like 2h or 7d");
  return static_cast<std::int64_t>(start * 1e9);
}

}  // namespace zmqwriter
