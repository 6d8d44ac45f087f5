// A writer as the host would create it, but without a thread: the test's threads call the Do*
// operations themselves.
//
// Compile with access to protected members (WHITE_BOX) and link a worker, real or fake.
#pragma once

#include <memory>
#include <string>

#include "ZMQ.h"

#include "Val.h"
#include "logging/WriterFrontend.h"

#include "RecordBuilder.h"

namespace test {

/// What the host keeps of a writer. Construct and destroy on the main thread.
class Frontend {
 public:
  Frontend()
      : stream_type_(new EnumType("Log::ID")),
        writer_type_(new EnumType("Log::Writer")),
        stream_(new EnumVal(0, stream_type_)),
        writer_(new EnumVal(0, writer_type_)) {
    writer_type_->AddName("Log", "WRITER_ZMQ", 0, true, false);
    logging::WriterBackend::WriterInfo info;
    info.path = copy_string("test");
    frontend_.reset(new logging::WriterFrontend(info, stream_, writer_, false, false));
  }
  ~Frontend() {
    frontend_.reset();
    Unref(writer_);
    Unref(stream_);
    Unref(writer_type_);
    Unref(stream_type_);
  }
  Frontend(const Frontend&) = delete;
  Frontend& operator=(const Frontend&) = delete;

  logging::WriterFrontend* get() const { return frontend_.get(); }

 private:
  EnumType* stream_type_;
  EnumType* writer_type_;
  EnumVal* stream_;
  EnumVal* writer_;
  std::unique_ptr<logging::WriterFrontend> frontend_;
};

/// One writer with a frontend of its own.
class WriterUnderTest {
 public:
  WriterUnderTest() : writer_(new logging::writer::ZMQ(frontend_.get())) {}

  logging::writer::ZMQ* operator->() const { return writer_.get(); }

  /// The host's call for a new writer.
  bool init() { return writer_->DoInit(frontend_.get()->Info(), 0, nullptr); }
  bool write(RecordBuilder& record) {
    return writer_->DoWrite(record.size(), record.fields(), record.vals());
  }
  /// Any record.
  bool write() {
    RecordBuilder record;
    record.text("uid", "CAbc");
    return write(record);
  }
  void destroy() { writer_.reset(); }

 private:
  Frontend frontend_;
  std::unique_ptr<logging::writer::ZMQ> writer_;
};

}  // namespace test
