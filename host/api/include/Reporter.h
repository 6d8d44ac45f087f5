// The host's reports.
//
// The host allows them on its main thread only. Here they are thread-safe, so that a report from
// another thread is seen as what it says instead of as a crash.
#pragma once

#include <stdarg.h>

#include <atomic>

#include "Obj.h"
#include "Type.h"
#include "threading/SerialTypes.h"
#include "util.h"

class Reporter {
 public:
  Reporter() : errors(0) {}

  // One line on stderr each: "[<network time> ][<prefix>: ]<text>".
  void Info(const char* fmt, ...) FMT_ATTR;
  void Warning(const char* fmt, ...) FMT_ATTR;
  /// Counted by Errors.
  void Error(const char* fmt, ...) FMT_ATTR;
  void InternalWarning(const char* fmt, ...) FMT_ATTR;

  int Errors() { return errors; }

  // These do not return, although the host does not declare them so.
  void FatalError(const char* fmt, ...) FMT_ATTR;          // exit status 1
  void FatalErrorWithCore(const char* fmt, ...) FMT_ATTR;  // abort
  void InternalError(const char* fmt, ...) FMT_ATTR;       // abort

  /// `name` is a format without arguments: the host uses it so, too.
  void Weird(const char* name);

 private:
  Reporter(const Reporter&);
  Reporter& operator=(const Reporter&);

  std::atomic<int> errors;
};

/// 0 before start and after termination.
extern Reporter* reporter;
