// A failed allocation is fatal: it ends the process through the host's out_of_memory.
#pragma once

#include <stdlib.h>

#include <new>

#include "util.h"

/// Runs `action` and returns its result. No exception gets out: a failed allocation ends the
/// process with the host's message, any other exception ends it as an unhandled one.
template <typename Action>
auto abort_on_bad_alloc(Action action) noexcept -> decltype(action()) {
  try {
    return action();
  } catch (const std::bad_alloc&) {
    out_of_memory("malloc");
    abort();
  }
}
