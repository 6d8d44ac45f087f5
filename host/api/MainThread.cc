#include "MainThread.h"

#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <thread>

namespace host {

namespace {
std::atomic<std::thread::id> main_thread;
}

void set_main_thread() {
  main_thread = std::this_thread::get_id();
}

void forget_main_thread() {
  main_thread = std::thread::id();
}

bool on_main_thread() {
  const std::thread::id main = main_thread.load(std::memory_order_relaxed);
  return main == std::thread::id() || main == std::this_thread::get_id();
}

void require_main_thread(const char* what) {
  if (on_main_thread())
    return;
  fprintf(stderr, "wrong thread: %s belongs to the host's main thread\n", what);
  abort();
}

}  // namespace host
