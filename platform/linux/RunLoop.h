// The inside of a run loop: what CoreFoundation.cpp and a stream share. A loop waits until one of
// its sources has something to do, and does it on its own thread, one source at a time, without
// holding its lock.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <vector>

#include "ThreadSafety.h"

struct RunLoopSource {
  std::function<void()> perform;  // called on the loop's thread
  bool isReady = false;           // guarded by the loop's lock
};

struct __CFRunLoop {
 public:
  // Any thread. A source is performed once for all signals since it was last begun.
  void Add(const std::shared_ptr<RunLoopSource>& source) EXCLUDES(lock_);
  void Remove(const std::shared_ptr<RunLoopSource>& source) EXCLUDES(lock_);
  void Signal(const std::shared_ptr<RunLoopSource>& source) EXCLUDES(lock_);
  void Stop() EXCLUDES(lock_);

  // The loop's own thread. Returns when stopped or when no source is left.
  void Run() EXCLUDES(lock_);

 private:
  std::shared_ptr<RunLoopSource> NextReady() EXCLUDES(lock_);

  Mutex lock_;
  std::condition_variable_any changed_;
  std::vector<std::shared_ptr<RunLoopSource>> sources_ GUARDED_BY(lock_);
  bool isStopped_ GUARDED_BY(lock_) = false;
};
