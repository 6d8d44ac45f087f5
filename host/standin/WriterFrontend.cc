#include "logging/WriterFrontend.h"

#include <algorithm>
#include <string>

#include "Call.h"
#include "HostReporter.h"
#include "MainThread.h"
#include "Net.h"
#include "logging/Manager.h"

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

std::string make_name(const char* path, EnumVal* writer) {
  return std::string(path ? path : "") + "/" +
         writer->Type()->AsEnumType()->Lookup(writer->AsEnum());
}

}  // namespace

WriterFrontend::WriterFrontend(const WriterBackend::WriterInfo& arg_info, EnumVal*, EnumVal* writer,
                               bool local, bool)
    : backend(nullptr),
      disabled(!local),
      initialized(false),
      buf(true),
      name(make_name(arg_info.path, writer)),
      info(arg_info),
      num_fields(0) {
  host::require_main_thread("creating a WriterFrontend");
  if (!local)
    return;
  backend = log_mgr->CreateBackend(this, writer);
  backend->Start();
}

WriterFrontend::~WriterFrontend() {
  host::require_main_thread("destroying a WriterFrontend");
  for (threading::Value** vals : write_buffer)
    DeleteVals(vals);
}

void WriterFrontend::Stop() {
  host::require_main_thread("WriterFrontend::Stop");
  if (disabled)
    return;
  FlushWriteBuffer();
  SetDisable();
  backend->SignalStop();
}

void WriterFrontend::Init(int arg_num_fields, const threading::Field* const* fields) {
  host::require_main_thread("WriterFrontend::Init");
  if (disabled || initialized)
    host::any_reporter().InternalError("writer %s is initialised twice", Name());
  num_fields = arg_num_fields;
  initialized = true;
  backend->SendIn(new InitMessage(backend, num_fields, fields));
}

void WriterFrontend::Write(int arg_num_fields, threading::Value** vals) {
  host::require_main_thread("WriterFrontend::Write");
  if (arg_num_fields != num_fields)
    host::any_reporter().InternalError("writer %s got a record of %d values instead of %d", Name(),
                                       arg_num_fields, num_fields);
  if (disabled) {
    DeleteVals(vals);
    return;
  }
  write_buffer.push_back(vals);
  if (write_buffer.size() >= WRITER_BUFFER_SIZE || !buf || terminating)
    FlushWriteBuffer();
}

void WriterFrontend::FlushWriteBuffer() {
  host::require_main_thread("WriterFrontend::FlushWriteBuffer");
  if (disabled || write_buffer.empty())
    return;
  threading::Value*** batch = new threading::Value**[write_buffer.size()];
  std::copy(write_buffer.begin(), write_buffer.end(), batch);
  backend->SendIn(
      new WriteMessage(backend, num_fields, static_cast<int>(write_buffer.size()), batch));
  write_buffer.clear();
}

void WriterFrontend::SetBuf(bool enabled) {
  host::require_main_thread("WriterFrontend::SetBuf");
  if (disabled)
    return;
  buf = enabled;
  backend->SendIn(new host::InputCall(
      "SetBuf", [writer = backend, enabled] { return writer->SetBuf(enabled); }));
  if (!enabled)
    FlushWriteBuffer();
}

void WriterFrontend::Rotate(const char* rotated_path, double open, double close,
                            bool arg_terminating) {
  host::require_main_thread("WriterFrontend::Rotate");
  if (disabled)
    return;
  FlushWriteBuffer();
  const std::string to = rotated_path;
  backend->SendIn(new host::InputCall("Rotate", [=, writer = backend] {
    return writer->Rotate(to.c_str(), open, close, arg_terminating);
  }));
}

void WriterFrontend::DeleteVals(threading::Value** vals) {
  for (int i = 0; i < num_fields; ++i)
    delete vals[i];
  delete[] vals;
}

}  // namespace logging
