#include "logging/WriterBackend.h"

#include <string>

#include "HostReporter.h"
#include "Poison.h"
#include "logging/Manager.h"
#include "logging/WriterFrontend.h"

namespace logging {

// Messages to the frontend. It may be gone by the time they arrive.

namespace {

class FrontendMessage : public threading::OutputMessage<WriterFrontend> {
 public:
  FrontendMessage(const char* name, WriterFrontend* frontend)
      : threading::OutputMessage<WriterFrontend>(name, frontend) {}

  bool Process() final {
    if (WriterFrontend::Exists(Object()))
      Apply(Object());
    return true;
  }

 private:
  virtual void Apply(WriterFrontend* frontend) = 0;
};

class FlushWriteBufferMessage final : public FrontendMessage {
 public:
  explicit FlushWriteBufferMessage(WriterFrontend* frontend)
      : FrontendMessage("FlushWriteBuffer", frontend) {}

 private:
  void Apply(WriterFrontend* frontend) override { frontend->FlushWriteBuffer(); }
};

class DisableMessage final : public FrontendMessage {
 public:
  explicit DisableMessage(WriterFrontend* frontend) : FrontendMessage("Disable", frontend) {}

 private:
  void Apply(WriterFrontend* frontend) override { frontend->SetDisable(); }
};

class RotationFinishedMessage final : public threading::OutputMessage<WriterFrontend> {
 public:
  RotationFinishedMessage(WriterFrontend* frontend, const char* new_name, const char* old_name,
                          double open, double close, bool terminating)
      : threading::OutputMessage<WriterFrontend>("RotationFinished", frontend),
        rotation_{new_name, old_name, open, close, terminating} {}

  bool Process() override { return log_mgr->FinishedRotation(Object(), rotation_); }

 private:
  Manager::Rotation rotation_;
};

}  // namespace

WriterBackend::WriterInfo::WriterInfo(const WriterInfo& other)
    : path(copy_string(other.path)),
      rotation_interval(other.rotation_interval),
      rotation_base(other.rotation_base),
      network_time(other.network_time) {
  for (const auto& entry : other.config)
    config.insert({copy_string(entry.first), copy_string(entry.second)});
}

WriterBackend::WriterInfo::~WriterInfo() {
  delete[] path;
  for (const auto& entry : config) {
    delete[] entry.first;
    delete[] entry.second;
  }
}

WriterBackend::WriterBackend(WriterFrontend* arg_frontend)
    : frontend(arg_frontend),
      info(new WriterInfo(arg_frontend->Info())),
      num_fields(0),
      fields(nullptr),
      buffering(true),
      rotation_counter(0) {
  SetName(arg_frontend->Name());
}

WriterBackend::~WriterBackend() {
  RequireMain("destruction");
  if (WriterFrontend::Exists(frontend) && frontend->backend == this)
    frontend->backend = nullptr;
  for (int i = 0; i < num_fields; ++i)
    delete fields[i];
  delete[] fields;
  delete info;
}

bool WriterBackend::Init(int arg_num_fields, const threading::Field* const* arg_fields) {
  RequireChild("Init");
  if (Started())
    SetOSName(Fmt("bro: %s", Name()));
  num_fields = arg_num_fields;
  fields = arg_fields;
  if (Failed())
    return true;
  if (!DoInit(*info, num_fields, fields)) {
    DisableFrontend();
    return false;
  }
  return true;
}

bool WriterBackend::TypesMatch(int arg_num_fields, int num_writes, threading::Value*** vals) {
  if (arg_num_fields != num_fields) {
    InternalWarning(Fmt("a record of %d values instead of %d", arg_num_fields, num_fields));
    return false;
  }
  for (int j = 0; j < num_writes; ++j) {
    for (int i = 0; i < num_fields; ++i) {
      if (vals[j][i]->type != fields[i]->type) {
        InternalWarning(Fmt("a value of type %s in the column %s of type %s",
                            type_name(vals[j][i]->type), fields[i]->name,
                            type_name(fields[i]->type)));
        return false;
      }
    }
  }
  return true;
}

bool WriterBackend::Write(int arg_num_fields, int num_writes, threading::Value*** vals) {
  RequireChild("Write");
  const bool match = TypesMatch(arg_num_fields, num_writes, vals);
  bool success = match;
  for (int j = 0; success && !Failed() && j < num_writes; ++j) {
    success = DoWrite(num_fields, fields, vals[j]);
    for (int i = 0; i < num_fields; ++i)
      standin::poison(vals[j][i]);
  }
  DeleteVals(arg_num_fields, num_writes, vals);
  if (!success)
    DisableFrontend();
  return success;
}

void WriterBackend::DeleteVals(int arg_num_fields, int num_writes, threading::Value*** vals) {
  for (int j = 0; j < num_writes; ++j) {
    for (int i = 0; i < arg_num_fields; ++i)
      delete vals[j][i];
    delete[] vals[j];
  }
  delete[] vals;
}

bool WriterBackend::SetBuf(bool enabled) {
  RequireChild("SetBuf");
  if (enabled == buffering)
    return true;
  buffering = enabled;
  if (Failed() || DoSetBuf(enabled))
    return true;
  DisableFrontend();
  return false;
}

bool WriterBackend::Flush(double arg_network_time) {
  RequireChild("Flush");
  if (Failed() || DoFlush(arg_network_time))
    return true;
  DisableFrontend();
  return false;
}

bool WriterBackend::Rotate(const char* rotated_path, double open, double close,
                           bool arg_terminating) {
  RequireChild("Rotate");
  if (Failed())
    return true;
  rotation_counter = 1;
  if (!DoRotate(rotated_path, open, close, arg_terminating)) {
    DisableFrontend();
    return false;
  }
  if (rotation_counter > 0)
    InternalError(Fmt("writer %s did not call FinishedRotation() in DoRotation()", Name()));
  if (rotation_counter < 0)
    InternalError(
        Fmt("writer %s called FinishedRotation() more than once in DoRotation()", Name()));
  return true;
}

bool WriterBackend::FinishedRotation(const char* new_name, const char* old_name, double open,
                                     double close, bool arg_terminating) {
  --rotation_counter;
  SendOut(new RotationFinishedMessage(frontend, new_name, old_name, open, close, arg_terminating));
  return true;
}

bool WriterBackend::FinishedRotation() {
  --rotation_counter;
  return true;
}

void WriterBackend::DisableFrontend() {
  SendOut(new DisableMessage(frontend));
}

bool WriterBackend::OnHeartbeat(double arg_network_time, double arg_current_time) {
  RequireChild("OnHeartbeat");
  if (Failed())
    return true;
  SendOut(new FlushWriteBufferMessage(frontend));
  return DoHeartbeat(arg_network_time, arg_current_time);
}

bool WriterBackend::OnFinish(double arg_network_time) {
  RequireChild("OnFinish");
  return Failed() || DoFinish(arg_network_time);
}

}  // namespace logging
