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
  Queue() : stopped_(false) {}

  void Put(T data) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      data_.push_back(data);
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

  uint64_t Size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return data_.size();
  }

 private:
  Queue(const Queue&);
  Queue& operator=(const Queue&);

  T Take() {
    if (data_.empty())
      return T();
    T data = data_.front();
    data_.pop_front();
    return data;
  }

  mutable std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<T> data_;
  bool stopped_;
};

}  // namespace threading
