// A FIFO of pointers between one main and one child thread. Unbounded.
#pragma once

#include <stdint.h>

#include <condition_variable>
#include <deque>
#include <mutex>

namespace threading {

template <typename T>
class Queue {
 public:
  struct Stats {
    uint64_t num_reads;
    uint64_t num_writes;
  };

  Queue() : stopped_(false), num_reads_(0), num_writes_(0) {}

  void Put(T data) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      data_.push_back(data);
      ++num_writes_;
    }
    ready_.notify_one();
  }

  /// Waits for an element; a null value once the queue is stopped and empty.
  T Get() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (data_.empty() && !stopped_)
      ready_.wait(lock);
    return Take();
  }

  /// An element if there is one, else a null value.
  T TryGet() {
    std::lock_guard<std::mutex> lock(mutex_);
    return Take();
  }

  /// From now on Get does not wait.
  void WakeUp() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopped_ = true;
    }
    ready_.notify_all();
  }

  bool Ready() const { return Size() > 0; }

  uint64_t Size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return data_.size();
  }

  void GetStats(Stats* stats) const {
    std::lock_guard<std::mutex> lock(mutex_);
    stats->num_reads = num_reads_;
    stats->num_writes = num_writes_;
  }

 private:
  Queue(const Queue&);
  Queue& operator=(const Queue&);

  T Take() {
    if (data_.empty())
      return T();
    T data = data_.front();
    data_.pop_front();
    ++num_reads_;
    return data;
  }

  mutable std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<T> data_;
  bool stopped_;
  uint64_t num_reads_;
  uint64_t num_writes_;
};

}  // namespace threading
