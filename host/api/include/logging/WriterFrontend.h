// The main thread's side of a log writer.
#pragma once

#include "logging/WriterBackend.h"

namespace logging {

/// Main thread only, except Name and Info.
class WriterFrontend {
 public:
  /// Copies `info`, takes references on both enum values. With `local` the backend is made by the
  /// factory of `writer` and its thread is started.
  WriterFrontend(const WriterBackend::WriterInfo& info, EnumVal* stream, EnumVal* writer,
                 bool local, bool remote);
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
  void Flush(double network_time);
  void Rotate(const char* rotated_path, double open, double close, bool terminating);
  void FlushWriteBuffer();

  void SetDisable() { disabled = true; }
  bool Disabled() { return disabled; }

  /// <path>/Log::WRITER_<CANONICAL>
  const char* Name() const { return name; }
  const WriterBackend::WriterInfo& Info() const { return *info; }
  int NumFields() const { return num_fields; }
  const threading::Field* const* Fields() const { return fields; }

  /// Whether `frontend` still exists; a message for one that is gone has no effect.
  static bool Exists(WriterFrontend* frontend);

 protected:
  friend class WriterBackend;

  void DeleteVals(int num_fields, threading::Value** vals);
  void DiscardWriteBuffer();

  EnumVal* stream;
  EnumVal* writer;
  WriterBackend* backend;  // null once the backend is gone
  bool disabled;
  bool initialized;
  bool buf;
  bool local;
  bool remote;
  const char* name;
  WriterBackend::WriterInfo* info;
  int num_fields;
  const threading::Field* const* fields;  // the backend's

  static const int WRITER_BUFFER_SIZE = 1000;
  int write_buffer_pos;
  threading::Value*** write_buffer;

 private:
  WriterFrontend(const WriterFrontend&);
  WriterFrontend& operator=(const WriterFrontend&);
};

}  // namespace logging
