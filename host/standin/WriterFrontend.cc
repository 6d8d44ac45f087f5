#include "logging/WriterFrontend.h"

#include <memory>
#include <set>
#include <string>

#include "Desc.h"
#include "HostReporter.h"
#include "Net.h"
#include "logging/Manager.h"
#include "standin/MainThread.h"

namespace logging {

// Messages to the backend.

namespace {

typedef threading::InputMessage<WriterBackend> BackendMessage;

class InitMessage final : public BackendMessage {
 public:
  InitMessage(WriterBackend* backend, int num_fields, const threading::Field* const* fields)
      : BackendMessage("Init", backend), num_fields_(num_fields), fields_(fields), taken_(false) {}

  // Not taken: the thread was killed before it came to this message.
  ~InitMessage() override {
    if (taken_)
      return;
    for (int i = 0; i < num_fields_; ++i)
      delete fields_[i];
    delete[] fields_;
  }

  bool Process() override {
    taken_ = true;
    return Object()->Init(num_fields_, fields_);
  }

 private:
  int num_fields_;
  const threading::Field* const* fields_;
  bool taken_;
};

class WriteMessage final : public BackendMessage {
 public:
  WriteMessage(WriterBackend* backend, int num_fields, int num_writes, threading::Value*** vals)
      : BackendMessage("Write", backend),
        num_fields_(num_fields),
        num_writes_(num_writes),
        vals_(vals) {}

  ~WriteMessage() override {
    if (!vals_)
      return;
    for (int j = 0; j < num_writes_; ++j) {
      for (int i = 0; i < num_fields_; ++i)
        delete vals_[j][i];
      delete[] vals_[j];
    }
    delete[] vals_;
  }

  bool Process() override {
    threading::Value*** vals = vals_;
    vals_ = nullptr;
    return Object()->Write(num_fields_, num_writes_, vals);
  }

 private:
  int num_fields_;
  int num_writes_;
  threading::Value*** vals_;  // null once the backend has them
};

class SetBufMessage final : public BackendMessage {
 public:
  SetBufMessage(WriterBackend* backend, bool enabled)
      : BackendMessage("SetBuf", backend), enabled_(enabled) {}

  bool Process() override { return Object()->SetBuf(enabled_); }

 private:
  bool enabled_;
};

class FlushMessage final : public BackendMessage {
 public:
  FlushMessage(WriterBackend* backend, double time)
      : BackendMessage("Flush", backend), time_(time) {}

  bool Process() override { return Object()->Flush(time_); }

 private:
  double time_;
};

class RotateMessage final : public BackendMessage {
 public:
  RotateMessage(WriterBackend* backend, const char* rotated_path, double open, double close,
                bool terminating)
      : BackendMessage("Rotate", backend),
        rotated_path_(rotated_path),
        open_(open),
        close_(close),
        terminating_(terminating) {}

  bool Process() override {
    return Object()->Rotate(rotated_path_.c_str(), open_, close_, terminating_);
  }

 private:
  std::string rotated_path_;
  double open_;
  double close_;
  bool terminating_;
};

// Frontends that exist. Main thread only, like everything here.
std::set<WriterFrontend*>& frontends() {
  static std::set<WriterFrontend*>* instance = new std::set<WriterFrontend*>;
  return *instance;
}

std::string make_name(const char* path, const EnumVal* writer) {
  ODesc d;
  d.Add(path ? path : "");
  d.Add("/");
  writer->Describe(&d);
  return d.Description();
}

}  // namespace

bool WriterFrontend::Exists(WriterFrontend* frontend) {
  return frontends().count(frontend) > 0;
}

WriterFrontend::WriterFrontend(const WriterBackend::WriterInfo& arg_info, EnumVal* arg_stream,
                               EnumVal* arg_writer, bool arg_local, bool arg_remote)
    : stream(arg_stream),
      writer(arg_writer),
      backend(nullptr),
      disabled(false),
      initialized(false),
      buf(true),
      local(arg_local),
      remote(arg_remote),
      name(copy_string(make_name(arg_info.path, arg_writer).c_str())),
      info(new WriterBackend::WriterInfo(arg_info)),
      num_fields(0),
      fields(nullptr),
      write_buffer_pos(0),
      write_buffer(nullptr) {
  standin::require_main_thread("creating a WriterFrontend");
  Ref(stream);
  Ref(writer);
  frontends().insert(this);
  if (!local)
    return;
  if (!log_mgr)
    standin::host_reporter().InternalError("a writer needs log_mgr, which does not exist yet");
  backend = log_mgr->CreateBackend(this, writer);
  backend->Start();
}

WriterFrontend::~WriterFrontend() {
  standin::require_main_thread("destroying a WriterFrontend");
  frontends().erase(this);
  DiscardWriteBuffer();
  if (!local) {
    for (int i = 0; i < num_fields; ++i)
      delete fields[i];
    delete[] fields;
  }
  Unref(stream);
  Unref(writer);
  delete info;
  delete[] name;
}

void WriterFrontend::Stop() {
  standin::require_main_thread("WriterFrontend::Stop");
  FlushWriteBuffer();
  SetDisable();
  if (backend)
    backend->SignalStop();
}

void WriterFrontend::Init(int arg_num_fields, const threading::Field* const* arg_fields) {
  standin::require_main_thread("WriterFrontend::Init");
  if (disabled || initialized)
    standin::host_reporter().InternalError("writer %s is initialised twice", name);
  num_fields = arg_num_fields;
  fields = arg_fields;
  initialized = true;
  if (backend)
    backend->SendIn(new InitMessage(backend, num_fields, fields));
}

void WriterFrontend::Write(int arg_num_fields, threading::Value** vals) {
  standin::require_main_thread("WriterFrontend::Write");
  if (disabled || !backend) {
    DeleteVals(arg_num_fields, vals);
    return;
  }
  if (arg_num_fields != num_fields) {
    standin::host_reporter().Warning("writer %s got a record of %d values instead of %d, skipped",
                                     name, arg_num_fields, num_fields);
    DeleteVals(arg_num_fields, vals);
    return;
  }
  if (!write_buffer)
    write_buffer = new threading::Value**[WRITER_BUFFER_SIZE];
  write_buffer[write_buffer_pos++] = vals;
  if (write_buffer_pos >= WRITER_BUFFER_SIZE || !buf || terminating)
    FlushWriteBuffer();
}

void WriterFrontend::FlushWriteBuffer() {
  standin::require_main_thread("WriterFrontend::FlushWriteBuffer");
  if (write_buffer_pos == 0)
    return;
  if (!backend) {
    DiscardWriteBuffer();
    return;
  }
  backend->SendIn(new WriteMessage(backend, num_fields, write_buffer_pos, write_buffer));
  write_buffer = nullptr;
  write_buffer_pos = 0;
}

void WriterFrontend::SetBuf(bool enabled) {
  standin::require_main_thread("WriterFrontend::SetBuf");
  if (disabled)
    return;
  buf = enabled;
  if (backend)
    backend->SendIn(new SetBufMessage(backend, enabled));
  if (!enabled)
    FlushWriteBuffer();
}

void WriterFrontend::Flush(double arg_network_time) {
  standin::require_main_thread("WriterFrontend::Flush");
  if (disabled)
    return;
  FlushWriteBuffer();
  if (backend)
    backend->SendIn(new FlushMessage(backend, arg_network_time));
}

void WriterFrontend::Rotate(const char* rotated_path, double open, double close,
                            bool arg_terminating) {
  standin::require_main_thread("WriterFrontend::Rotate");
  if (disabled)
    return;
  FlushWriteBuffer();
  if (backend)
    backend->SendIn(new RotateMessage(backend, rotated_path, open, close, arg_terminating));
}

void WriterFrontend::DiscardWriteBuffer() {
  for (int j = 0; j < write_buffer_pos; ++j)
    DeleteVals(num_fields, write_buffer[j]);
  delete[] write_buffer;
  write_buffer = nullptr;
  write_buffer_pos = 0;
}

void WriterFrontend::DeleteVals(int arg_num_fields, threading::Value** vals) {
  for (int i = 0; i < arg_num_fields; ++i)
    delete vals[i];
  delete[] vals;
}

}  // namespace logging
