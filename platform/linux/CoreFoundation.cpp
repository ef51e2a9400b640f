#include "CoreFoundation.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <new>

#include "RunLoop.h"

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFRunLoopMode kCFRunLoopDefaultMode = nullptr;

namespace {

std::chrono::steady_clock::time_point asTime(CFAbsoluteTime time) {
  const std::chrono::duration<double> seconds(std::min(time, 9e9));  // within the clock's range
  return std::chrono::steady_clock::time_point(
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(seconds));
}

}  // namespace

CFStringRef CFStringCreateWithCString(CFAllocatorRef /*allocator*/, const char* text,
                                      CFStringEncoding /*encoding*/) {
  try {
    return std::make_unique<__CFString>(text).release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

CFArrayRef CFArrayCreate(CFAllocatorRef /*allocator*/, const void** values, CFIndex count,
                         const CFArrayCallBacks* /*callBacks*/) {
  try {
    auto array = std::make_unique<__CFArray>();
    array->values.assign(values, values + count);
    return array.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void CFRelease(CFTypeRef object) {
  const std::unique_ptr<const CFObject> released(static_cast<const CFObject*>(object));
}

void __CFRunLoop::Add(const std::shared_ptr<RunLoopSource>& source) {
  const MutexLock lock(lock_);
  sources_.push_back(source);
  changed_.notify_all();
}

void __CFRunLoop::Remove(const std::shared_ptr<RunLoopSource>& source) {
  const MutexLock lock(lock_);
  std::erase(sources_, source);
  changed_.notify_all();
}

void __CFRunLoop::Signal(const std::shared_ptr<RunLoopSource>& source) {
  const MutexLock lock(lock_);
  source->isReady = true;
  changed_.notify_all();
}

void __CFRunLoop::SignalAt(const std::shared_ptr<RunLoopSource>& source,
                           std::chrono::steady_clock::time_point due) {
  const MutexLock lock(lock_);
  source->due = due;
  changed_.notify_all();
}

void __CFRunLoop::Stop() {
  const MutexLock lock(lock_);
  isStopped_ = true;
  changed_.notify_all();
}

void __CFRunLoop::Run() {
  while (const std::shared_ptr<RunLoopSource> source = NextReady()) source->perform();
}

// Waits for a source that is ready; null when the loop is to end.
std::shared_ptr<RunLoopSource> __CFRunLoop::NextReady() {
  const MutexLock lock(lock_);
  while (!isStopped_ && !sources_.empty()) {
    const auto now = std::chrono::steady_clock::now();
    std::optional<std::chrono::steady_clock::time_point> next;
    for (const std::shared_ptr<RunLoopSource>& source : sources_) {
      if (source->isReady || (source->due && *source->due <= now)) {
        source->isReady = false;
        source->due.reset();
        return source;
      }
      if (source->due) next = std::min(next.value_or(*source->due), *source->due);
    }
    if (next) {
      changed_.wait_until(lock_, *next);
    } else {
      changed_.wait(lock_);
    }
  }
  isStopped_ = false;
  return nullptr;
}

CFAbsoluteTime CFAbsoluteTimeGetCurrent() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef /*allocator*/, CFAbsoluteTime fireDate,
                                       CFTimeInterval /*interval*/, CFOptionFlags /*flags*/,
                                       CFIndex /*order*/, CFRunLoopTimerCallBack callback,
                                       CFRunLoopTimerContext* /*context*/) {
  try {
    auto timer = std::make_unique<__CFRunLoopTimer>();
    timer->source->perform = [timer = timer.get(), callback] { callback(timer, nullptr); };
    timer->source->due = asTime(fireDate);
    return timer.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void CFRunLoopTimerSetNextFireDate(CFRunLoopTimerRef timer, CFAbsoluteTime fireDate) {
  if (timer->loop != nullptr) timer->loop->SignalAt(timer->source, asTime(fireDate));
}

void CFRunLoopAddTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFRunLoopMode /*mode*/) {
  timer->loop = loop;
  loop->Add(timer->source);
}

CFRunLoopRef CFRunLoopGetCurrent() {
  thread_local __CFRunLoop loop;
  return &loop;
}

void CFRunLoopRun() { CFRunLoopGetCurrent()->Run(); }

void CFRunLoopStop(CFRunLoopRef loop) { loop->Stop(); }
