#include "ZMQ.h"

#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <flatbuffers/flatbuffers.h>

#include "OutOfMemory.h"
#include "RecordConversion.h"
#include "SharedWorker.h"

#include "ConstantText.h"
#include "Net.h"
#include "util.h"

namespace logging {
namespace writer {
namespace {

const useconds_t kPollMicroseconds = 1000;

/// Never destroyed: a writer may be constructed for as long as the process lives.
AgentIdDetection& agent_id_detection = *new AgentIdDetection;

/// Every writer there is.
std::vector<ZMQ*> writers;  // guarded by writers_mutex
std::mutex writers_mutex;

/// Whether the host has posted anything to the writer that its thread has not worked off. A writer
/// whose thread was never started has got nothing.
bool has_work(ZMQ* writer) {
  if (writer->Terminating())
    return false;
  threading::MsgThread::Stats stats;
  writer->GetStats(&stats);
  return stats.sent_in > 0;
}

bool others_have_work(const ZMQ* writer) {
  std::lock_guard<std::mutex> lock(writers_mutex);
  return std::any_of(writers.begin(), writers.end(),
                     [=](ZMQ* other) { return other != writer && has_work(other); });
}

/// Waits until every other writer has worked off what the host has given it. Main thread, while the
/// host ends: each gets its finish message and then ends by itself. Nearly all have it already, and
/// the host itself asks twice; one that was created while the host ends may not have it.
void wait_for_others(const ZMQ* writer) {
  {
    std::lock_guard<std::mutex> lock(writers_mutex);
    for (ZMQ* other : writers)
      if (other != writer)
        other->SignalStop();
  }
  while (others_have_work(writer))
    usleep(kPollMicroseconds);
}

}  // namespace

ZMQ::ZMQ(WriterFrontend* frontend)
    : WriterBackend(frontend), fields(nullptr), num_fields(0), formatter(nullptr) {
  agent_id = text_of(BifConst::LogZMQ::zmq_agent_id);
  if (agent_id.empty())
    DetectAgentId();
  if (agent_id.empty() || agent_id == "-")
    reports::weird("Agent id is not set!");

  set_separator = text_of(BifConst::LogZMQ::set_separator);
  unset_field = text_of(BifConst::LogZMQ::unset_field);
  empty_field = text_of(BifConst::LogZMQ::empty_field);
  const threading::formatter::Ascii::SeparatorInfo separators("", set_separator, unset_field,
                                                              empty_field);
  formatter = new threading::formatter::Ascii(this, separators);

  std::lock_guard<std::mutex> lock(writers_mutex);
  writers.push_back(this);
}

ZMQ::~ZMQ() {
  // At its end the host destroys writers that have ended while others still have records to write,
  // and this one takes the worker from all of them.
  if (::terminating)
    wait_for_others(this);
  shared_worker::end();
  // The host drops what a thread posts once it is being ended: this is the way for such reports.
  reports::deliver_pending();
  {
    std::lock_guard<std::mutex> lock(writers_mutex);
    writers.erase(std::find(writers.begin(), writers.end(), this));
  }
  delete formatter;
}

WriterBackend* ZMQ::Instantiate(WriterFrontend* frontend) {
  return abort_on_bad_alloc([=] { return new ZMQ(frontend); });
}

char* ZMQ::FS(const char* format, ...) {
  char* text = nullptr;
  va_list arguments;
  va_start(arguments, format);
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length < 0)
    out_of_memory("malloc");
  return text;
}

void ZMQ::DetectAgentId() {
  agent_id = agent_id_detection.detect();
}

bool ZMQ::DoInit(const WriterInfo&, int arg_num_fields, const threading::Field* const* arg_fields) {
  return abort_on_bad_alloc([=] {
    const reports::WriterScope scope(this);
    num_fields = arg_num_fields;
    fields = arg_fields;
    shared_worker::ensure();
    return true;
  });
}

bool ZMQ::DoWrite(int count, const threading::Field* const* descriptions, threading::Value** vals) {
  return abort_on_bad_alloc([=] {
    const reports::WriterScope scope(this);
    flatbuffers::FlatBufferBuilder builder(kInitialBufferBytes);
    convert_record(builder, agent_id, count, descriptions, vals);
    return shared_worker::write(builder.GetSize(), builder.GetBufferPointer());
  });
}

bool ZMQ::DoSetBuf(bool) {
  return true;
}

bool ZMQ::DoFlush(double) {
  return true;
}

bool ZMQ::DoRotate(const char*, double, double, bool) {
  return true;
}

bool ZMQ::DoFinish(double) {
  return true;
}

bool ZMQ::DoHeartbeat(double, double) {
  return abort_on_bad_alloc([=] {
    // Opening the scope sends for reports of the send thread, also when no record comes along.
    const reports::WriterScope scope(this);
    return true;
  });
}

}  // namespace writer
}  // namespace logging
