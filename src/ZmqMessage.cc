#include "ZmqMessage.h"

#include <stdlib.h>
#include <string.h>

#include <zmq.h>

#include "util.h"

namespace logging {
namespace writer {
namespace {

void free_data(void* data, void* /* hint */) {
  free(data);
}

/// Second half of a message's initialisation: after zmq_msg_init_size(msg, size) has succeeded,
/// gives it `body` as its content, without copying. Owns `body` from now on. After a failure `msg`
/// must not be used.
///
/// The two initialisations of one message object without a close between them are required. But
/// the first one has set aside room for `size` bytes that the second no longer knows of. A
/// message object is a handle: a copy of its bits, closed afterwards, gives the room back.
bool adopt_body(zmq_msg_t* msg, void* body, size_t size) {
  zmq_msg_t sized = *msg;
  const bool adopted = zmq_msg_init_data(msg, body, size, free_data, nullptr) == 0;
  zmq_msg_close(&sized);
  if (!adopted)
    free(body);
  return adopted;
}

}  // namespace

zmq_message* new_record(void* body, uint64_t size) {
  zmq_message* const record = static_cast<zmq_message*>(malloc(sizeof(zmq_message)));
  if (record)
    *record = {body, size, 1, false};
  return record;
}

void settle_record(zmq_message* record) {
  free(record->data);
  record->data = nullptr;
  record->done = true;
  if (record->entries == 0)
    free(record);
}

zmq_message* pop_entry(std::queue<zmq_message*>& queue) {
  zmq_message* record = queue.front();
  queue.pop();
  record->entries -= 1;
  if (!record->done)
    return record;
  if (record->entries == 0)
    free(record);
  return nullptr;
}

bool init_with_copy(zmq_msg_t* msg, const void* data, size_t size) {
  if (zmq_msg_init_size(msg, size) != 0)
    return false;
  void* const copy = malloc(size > 0 ? size : 1);
  if (!copy)
    out_of_memory("malloc");
  if (size > 0)
    memcpy(copy, data, size);
  return adopt_body(msg, copy, size);
}

bool init_with_body(zmq_msg_t* msg, void* body, size_t size) {
  return zmq_msg_init_size(msg, size) == 0 && adopt_body(msg, body, size);
}

}  // namespace writer
}  // namespace logging
