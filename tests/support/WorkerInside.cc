#include "WorkerInside.h"

#include <zmq.h>

#include <cstdlib>

namespace test {

WorkerInside::WorkerInside(logging::writer::ZmqWorker* worker)
    : worker(*worker),
      server(worker->server),
      secondary_servers(worker->secondary_servers),
      public_key(worker->public_key),
      main_fail_time(worker->main_fail_time),
      queue(worker->queue),
      running(worker->running),
      secondary_server(worker->secondary_server),
      secondary_index(worker->secondary_index),
      context(worker->context),
      socket(worker->socket),
      mutex(worker->mutex),
      thread(worker->thread),
      sent_count(worker->sent_count),
      failed_count(worker->failed_count) {}

void WorkerInside::connect() {
  context = zmq_ctx_new();
  socket = worker.Connect(server);
  running = true;
}

void WorkerInside::stop() {
  running = true;
  const auto end_at_once = [](void* nothing) { return nothing; };
  pthread_create(&thread, nullptr, end_at_once, nullptr);
  worker.Stop();
}

std::vector<std::string> WorkerInside::take_queue() {
  std::vector<std::string> bodies;
  for (; !queue.empty(); queue.pop()) {
    bodies.emplace_back(static_cast<char*>(queue.front()->data), queue.front()->size);
    free(queue.front()->data);
    free(queue.front());
  }
  return bodies;
}

}  // namespace test
