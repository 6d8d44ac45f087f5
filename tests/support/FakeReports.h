#pragma once

#include <string>

namespace test {

/// What FakeReports.cc does with a report; ".deliver_pending" for a call of that function.
void report(const std::string& line);

}  // namespace test
