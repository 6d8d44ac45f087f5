// The base class of log writers: what runs on the child thread.
#pragma once

#include <map>
#include <string>

#include "Reporter.h"
#include "Val.h"
#include "logging/Component.h"
#include "threading/MsgThread.h"
#include "threading/SerialTypes.h"

namespace logging {

class WriterFrontend;

/// One writer of one log. Created and destroyed on the main thread; in between everything that
/// does the work runs on the child, one call after the other.
class WriterBackend : public threading::MsgThread {
 public:
  struct WriterInfo {
    typedef std::map<const char*, const char*, CompareString> config_map;

    const char* path;          ///< new[] string; null by default
    double rotation_interval;  ///< seconds; 0: none
    double rotation_base;      ///< seconds after midnight; -1: unset
    double network_time;       ///< when the writer was created
    config_map config;         ///< keys and values are new[] strings

    WriterInfo() : path(0), rotation_interval(0), rotation_base(0), network_time(0) {}
    WriterInfo(const WriterInfo& other);
    ~WriterInfo();

   private:
    const WriterInfo& operator=(const WriterInfo& other);
  };

  /// Main. Copies the frontend's info; the thread has the frontend's name.
  explicit WriterBackend(WriterFrontend* frontend);
  /// Main. Deletes the fields.
  virtual ~WriterBackend();

  // Child: what the frontend's messages call. False means that the writer is done for.
  /// Takes over the fields.
  bool Init(int num_fields, const threading::Field* const* fields);
  /// Takes over the values. Checks the type of every one before the first DoWrite. Each record is
  /// poisoned after its DoWrite: its bytes are overwritten before they are freed.
  bool Write(int num_fields, int num_writes, threading::Value*** vals);
  bool SetBuf(bool enabled);
  /// Ends the process when DoRotate returns true, as the host does with a writer that reports no
  /// finished rotation. Here no writer can report one.
  bool Rotate(const char* rotated_path, double open, double close, bool terminating);

  /// Any thread. Hides MsgThread::Info.
  const WriterInfo& Info() const { return *info; }
  /// 0 until Init.
  int NumFields() const { return num_fields; }
  const threading::Field* const* Fields() const { return fields; }

  virtual bool OnHeartbeat(double network_time, double current_time);
  virtual bool OnFinish(double network_time);

 protected:
  virtual bool DoInit(const WriterInfo& info, int num_fields,
                      const threading::Field* const* fields) = 0;
  virtual bool DoWrite(int num_fields, const threading::Field* const* fields,
                       threading::Value** vals) = 0;
  virtual bool DoSetBuf(bool enabled) = 0;
  virtual bool DoFlush(double network_time) = 0;
  virtual bool DoRotate(const char* rotated_path, double open, double close, bool terminating) = 0;
  virtual bool DoFinish(double network_time) = 0;
  virtual bool DoHeartbeat(double network_time, double current_time) = 0;

 private:
  bool TypesMatch(int num_fields, int num_writes, threading::Value*** vals);

  const WriterInfo* info;
  int num_fields;
  const threading::Field* const* fields;
  bool buffering;
};

}  // namespace logging
