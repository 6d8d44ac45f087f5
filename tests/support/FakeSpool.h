// A spool in memory that shows what it is asked to do. Linking FakeSpool.cc takes the place of
// src/PersistentQueue.cc.
//
// Operations go to the CallLog: "spool store 'body'", "spool get 'body'", "spool get nothing", and
// as details .spool_open, .spool_close and .spool_limits CHUNK TOTAL. IsEmpty is not logged.
// Thread-safe. What was stored outlives the PersistentQueue, as on disk.
#pragma once

#include <string>
#include <vector>

namespace test {

class FakeSpool {
 public:
  /// Empties the spool and forgets every promise.
  static void reset();
  /// What lies in the spool, oldest first; Get takes from the back.
  static std::vector<std::string> contents();
  static void put(const std::string& body);
  /// The next `count` Gets give null, each before anything that lies in the spool; until then the
  /// spool says that it is not empty.
  static void promise_nothing(int count);
};

}  // namespace test
