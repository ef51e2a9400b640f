// The inside of a run loop: what CoreFoundation.cpp and a stream share. A loop waits until one of
// its sources has something to do, and does it on its own thread, one source at a time, without
// holding its lock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "CoreFoundation.h"
#include "ThreadSafety.h"

struct RunLoopSource {
  std::function<void()> perform;  // called on the loop's thread

  // Guarded by the loop's lock.
  bool isReady = false;
  std::optional<std::chrono::steady_clock::time_point> due;  // when it becomes ready by itself
};

struct __CFRunLoop;

struct __CFRunLoopTimer : CFObject {
  std::shared_ptr<RunLoopSource> source = std::make_shared<RunLoopSource>();
  __CFRunLoop* loop = nullptr;  // once it is added
};

struct __CFRunLoop {
 public:
  // Any thread. A source is performed once for all signals since it was last begun.
  void Add(const std::shared_ptr<RunLoopSource>& source) EXCLUDES(lock_);
  void Remove(const std::shared_ptr<RunLoopSource>& source) EXCLUDES(lock_);
  void Signal(const std::shared_ptr<RunLoopSource>& source) EXCLUDES(lock_);
  void SignalAt(const std::shared_ptr<RunLoopSource>& source,
                std::chrono::steady_clock::time_point due) EXCLUDES(lock_);
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
