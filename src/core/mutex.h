// A mutex that clang's thread-safety analysis knows. libstdc++'s std::mutex carries no
// annotations, so state behind one could not be checked; wait on this one with
// std::condition_variable_any.
#pragma once

#include <mutex>

#include "core/thread_annotations.h"

namespace com {
namespace zelkora {

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace zelkora
}  // namespace com
