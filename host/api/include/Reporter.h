// The host's reports.
//
// The host allows them on its main thread only. Here they are thread-safe, so that a report from
// another thread is seen as what it says instead of as a crash; standin/ReportRecorder.h keeps
// the thread of each.
#pragma once

#include <stdarg.h>

#include <atomic>
#include <exception>
#include <list>
#include <string>
#include <utility>

#include "Desc.h"
#include "EventHandler.h"
#include "IPAddr.h"
#include "Obj.h"
#include "Type.h"
#include "threading/SerialTypes.h"
#include "util.h"

namespace analyzer {
class Analyzer;
}
namespace standin {
enum class ReportKind;
}
class Connection;
class Expr;
class Location;
class Reporter;
class Val;

class ReporterException : public std::exception {
 protected:
  friend class Reporter;
  ReporterException() {}
};

class InterpreterException : public ReporterException {
 protected:
  friend class Reporter;
  InterpreterException() {}
};

#define STANDIN_FMT_ATTR(format_at) __attribute__((format(printf, format_at, format_at + 1)))

class Reporter {
 public:
  Reporter();
  ~Reporter();

  // One line on stderr each: "[<network time> ][<prefix>[ in <location>]: ]<text>".
  void Info(const char* fmt, ...) FMT_ATTR;
  void Warning(const char* fmt, ...) FMT_ATTR;
  /// Counted by Errors.
  void Error(const char* fmt, ...) FMT_ATTR;
  void InternalWarning(const char* fmt, ...) FMT_ATTR;
  void Syslog(const char* fmt, ...) FMT_ATTR;
  void AnalyzerError(analyzer::Analyzer* a, const char* fmt, ...) STANDIN_FMT_ATTR(3);

  int Errors();

  // These do not return, although the host does not declare them so.
  void FatalError(const char* fmt, ...) FMT_ATTR;          // exit status 1
  void FatalErrorWithCore(const char* fmt, ...) FMT_ATTR;  // abort
  void InternalError(const char* fmt, ...) FMT_ATTR;       // abort
  void ExprRuntimeError(const Expr* expr, const char* fmt, ...) STANDIN_FMT_ATTR(3);      // throws
  void RuntimeError(const Location* location, const char* fmt, ...) STANDIN_FMT_ATTR(3);  // throws

  /// `name` is a format without arguments: the host uses it so, too.
  void Weird(const char* name);
  void Weird(Connection* conn, const char* name, const char* addl = "");
  /// Consumes one reference of `conn_val`.
  void Weird(Val* conn_val, const char* name, const char* addl = "");
  void Weird(const IPAddr& orig, const IPAddr& resp, const char* name);

  void PushLocation(const Location* location);
  void PushLocation(const Location* loc1, const Location* loc2);
  void PopLocation();

 private:
  Reporter(const Reporter&);
  Reporter& operator=(const Reporter&);

  void Report(standin::ReportKind kind, const char* prefix, const char* fmt, va_list args)
      __attribute__((format(printf, 4, 0)));
  void Deliver(standin::ReportKind kind, const char* prefix, const std::string& text);

  std::atomic<int> errors;
  std::list<const Location*> locations;  // guarded like the output
};

/// 0 before start and after termination.
extern Reporter* reporter;
