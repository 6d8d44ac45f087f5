// Holds a pthread mutex while it exists.
#pragma once

#include <pthread.h>

class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~MutexLock() { pthread_mutex_unlock(mutex_); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};
