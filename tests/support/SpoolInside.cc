#include "SpoolInside.h"

namespace test {

SpoolInside::SpoolInside(PersistentQueue* spool)
    : spool(*spool),
      head_file(spool->head_file),
      head_records(spool->head_records),
      head_bytes(spool->head_bytes),
      total_bytes(spool->total_bytes),
      file_count(spool->file_count),
      top_length(spool->top_length),
      chunk_limit(spool->chunk_limit),
      total_limit(spool->total_limit),
      cursor_state(spool->cursor_state),
      disabled(spool->disabled),
      top(spool->top) {}

bool SpoolInside::CreatePath(char* path) {
  return PersistentQueue::CreatePath(path);
}

void SpoolInside::openFile() {
  spool.openFile();
}

void SpoolInside::closeFile() {
  spool.closeFile();
}

bool SpoolInside::holds_bytes() const {
  return spool.reader.window != nullptr;
}

}  // namespace test
