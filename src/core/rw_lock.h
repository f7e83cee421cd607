// The reader/writer lock of the counting maps. Writers are preferred: a reset must not wait for
// ever behind callers that query the same map in a loop, which the default (reader-preferring)
// lock allows.
#pragma once

#include <pthread.h>

namespace com {
namespace zelkora {

class RwLock {
 public:
  RwLock() {
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock_, &attr);
    pthread_rwlockattr_destroy(&attr);
  }
  ~RwLock() { pthread_rwlock_destroy(&lock_); }
  RwLock(const RwLock&) = delete;
  RwLock& operator=(const RwLock&) = delete;

  // For std::unique_lock (exclusive) and std::shared_lock (shared).
  void lock() { pthread_rwlock_wrlock(&lock_); }
  void unlock() { pthread_rwlock_unlock(&lock_); }
  void lock_shared() { pthread_rwlock_rdlock(&lock_); }
  void unlock_shared() { pthread_rwlock_unlock(&lock_); }

 private:
  pthread_rwlock_t lock_;
};

}  // namespace zelkora
}  // namespace com
