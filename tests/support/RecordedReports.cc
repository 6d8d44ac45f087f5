// Reports go to the CallLog, so that their place among the other calls can be asserted.
#include "CallLog.h"
#include "FakeReports.h"

void test::report(const std::string& line) {
  CallLog::instance().add(line);
}
