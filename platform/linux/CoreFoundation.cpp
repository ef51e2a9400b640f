#include "CoreFoundation.h"

#include <algorithm>
#include <memory>
#include <new>

#include "RunLoop.h"

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFRunLoopMode kCFRunLoopDefaultMode = nullptr;

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
    const auto ready = std::find_if(sources_.begin(), sources_.end(),
                                    [](const auto& source) { return source->isReady; });
    if (ready != sources_.end()) {
      (*ready)->isReady = false;
      return *ready;
    }
    changed_.wait(lock_);
  }
  isStopped_ = false;
  return nullptr;
}

CFRunLoopRef CFRunLoopGetCurrent() {
  thread_local __CFRunLoop loop;
  return &loop;
}

void CFRunLoopRun() { CFRunLoopGetCurrent()->Run(); }

void CFRunLoopStop(CFRunLoopRef loop) { loop->Stop(); }
