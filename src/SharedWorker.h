// The one delivery worker that all writers of the process share.
//
// Threads: any thread may call any of these at any time. Writes of several threads run at the same
// time. A worker is stopped only after the writes under way are done, and no write reaches one that
// is not completely brought up, or that is being stopped.
//
// Errors: whatever goes wrong with the connection is reported by the worker itself.
#pragma once

namespace logging {
namespace writer {
namespace shared_worker {

/// Creates the worker, initialises it with the script constants and starts it, unless there is one.
/// Waits for an earlier worker that is being ended.
void ensure();

/// Hands an event message to the worker, which copies it. False while there is no worker.
bool write(unsigned long size, const void* data);

/// Stops and deletes the worker, if there is one: takes as long as its Stop.
void end();

}  // namespace shared_worker
}  // namespace writer
}  // namespace logging
