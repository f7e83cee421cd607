// The reader/writer lock of the counting maps. Writers are preferred: a reset must not wait for
// ever behind callers that query the same map in a loop, which the default (reader-preferring)
// lock allows.
#pragma once

#include <pthread.h>

#include "core/thread_annotations.h"

namespace com {
namespace zelkora {

class CAPABILITY("rwlock") RwLock {
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

  void lock() ACQUIRE() { pthread_rwlock_wrlock(&lock_); }
  void unlock() RELEASE() { pthread_rwlock_unlock(&lock_); }
  void lock_shared() ACQUIRE_SHARED() { pthread_rwlock_rdlock(&lock_); }
  void unlock_shared() RELEASE_SHARED() { pthread_rwlock_unlock(&lock_); }

 private:
  pthread_rwlock_t lock_;
};

// The scoped sides of the lock. The standard library's lock holders are not annotated, so with
// them the compiler could not check that a walk holds its map's lock.
class SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(RwLock& lock) ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
  ~WriterLock() RELEASE() { lock_.unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  RwLock& lock_;
};

class SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(RwLock& lock) ACQUIRE_SHARED(lock) : lock_(lock) { lock_.lock_shared(); }
  ~ReaderLock() RELEASE() { lock_.unlock_shared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  RwLock& lock_;
};

}  // namespace zelkora
}  // namespace com
