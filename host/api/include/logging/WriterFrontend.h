// The main thread's side of a log writer.
#pragma once

#include <string>
#include <vector>

#include "logging/WriterBackend.h"

namespace logging {

/// Main thread only, except Name and Info.
class WriterFrontend {
 public:
  /// With `local` the backend is made by the factory of `writer` and its thread is started; without
  /// it the frontend is disabled.
  WriterFrontend(const WriterBackend::WriterInfo& info, EnumVal* stream, EnumVal* writer,
                 bool local, bool remote);
  /// The backend, if there is one, must be gone.
  virtual ~WriterFrontend();

  /// Flushes, disables, and tells the backend to finish.
  void Stop();
  /// Takes over the fields. Once only.
  void Init(int num_fields, const threading::Field* const* fields);
  /// Takes over one record: a new[] array of new values. The batch goes to the backend when it
  /// holds WRITER_BUFFER_SIZE records, when buffering is off, when the host is ending, and when
  /// something else says so. A disabled frontend discards the record.
  void Write(int num_fields, threading::Value** vals);
  void SetBuf(bool enabled);
  void Rotate(const char* rotated_path, double open, double close, bool terminating);
  void FlushWriteBuffer();

  void SetDisable() { disabled = true; }
  bool Disabled() { return disabled; }

  /// <path>/Log::WRITER_<CANONICAL>
  const char* Name() const { return name.c_str(); }
  const WriterBackend::WriterInfo& Info() const { return info; }

 private:
  WriterFrontend(const WriterFrontend&);
  WriterFrontend& operator=(const WriterFrontend&);

  void DeleteVals(threading::Value** vals);

  WriterBackend* backend;  // may be gone once disabled
  bool disabled;
  bool initialized;
  bool buf;
  std::string name;
  WriterBackend::WriterInfo info;
  int num_fields;

  static const size_t WRITER_BUFFER_SIZE = 1000;
  std::vector<threading::Value**> write_buffer;
};

}  // namespace logging
