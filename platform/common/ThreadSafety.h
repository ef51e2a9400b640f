// Locks that the compiler can check. Clang's -Wthread-safety follows which lock guards which member
// when the lock types carry these attributes, which the standard library's own do not everywhere.
// Other compilers see plain locks.
#pragma once

#include <mutex>

#if defined(__clang__)
#define DIRWARDEN_ANNOTATE(x) __attribute__((x))
#else
#define DIRWARDEN_ANNOTATE(x)
#endif

#define GUARDED_BY(x) DIRWARDEN_ANNOTATE(guarded_by(x))
#define EXCLUDES(...) DIRWARDEN_ANNOTATE(locks_excluded(__VA_ARGS__))

// A mutex, not recursive.
class DIRWARDEN_ANNOTATE(capability("mutex")) Mutex {
 public:
  void lock() DIRWARDEN_ANNOTATE(acquire_capability()) { mutex_.lock(); }
  void unlock() DIRWARDEN_ANNOTATE(release_capability()) { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for the length of a block.
class DIRWARDEN_ANNOTATE(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) DIRWARDEN_ANNOTATE(acquire_capability(mutex)) : mutex_(mutex) {
    mutex_.lock();
  }
  ~MutexLock() DIRWARDEN_ANNOTATE(release_capability()) { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};
