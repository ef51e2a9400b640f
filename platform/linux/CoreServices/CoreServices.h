// What the tool and its tests use of the system's event-stream API, with the names, types and
// values that the API has on macOS, so that the tool's own source is the same on both. Nothing else
// of that API exists here.
//
// How it maps to Linux: a stream follows one folder tree through inotify and delivers batches of
// folder names on the thread that runs the run loop it is scheduled on. EventStream.cpp says what
// it promises.
//
// Streams, strings and arrays are used by one thread at a time; CFRunLoopStop may be called from
// any thread.
#pragma once

#include <cstddef>
#include <cstdint>

typedef unsigned char Boolean;
typedef uint32_t UInt32;
typedef unsigned long long UInt64;
typedef long CFIndex;
typedef double CFTimeInterval;  // seconds
typedef double CFAbsoluteTime;  // seconds; on Linux of a clock that nobody sets
typedef unsigned long CFOptionFlags;

typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFArray* CFArrayRef;
typedef struct __CFRunLoop* CFRunLoopRef;
typedef struct __CFRunLoopTimer* CFRunLoopTimerRef;
typedef CFStringRef CFRunLoopMode;
typedef UInt32 CFStringEncoding;
struct CFArrayCallBacks;  // no value but null is of use here

enum : CFStringEncoding { kCFStringEncodingUTF8 = 0x08000100 };
extern const CFAllocatorRef kCFAllocatorDefault;
extern const CFRunLoopMode kCFRunLoopDefaultMode;

// A string of the text's bytes, taken as they are: names on Linux need not be valid UTF-8. Null
// when there is no memory. The caller owns the result and gives it back with CFRelease.
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text,
                                      CFStringEncoding encoding);

// An array of the given pointers, which it does not own. Null when there is no memory. The caller
// owns the result.
CFArrayRef CFArrayCreate(CFAllocatorRef allocator, const void** values, CFIndex count,
                         const CFArrayCallBacks* callBacks);

// Gives a string or an array back.
void CFRelease(CFTypeRef object);

// The run loop of the calling thread; one per thread, for the thread's life.
CFRunLoopRef CFRunLoopGetCurrent();

// Delivers the batches of the streams scheduled on the calling thread's run loop. Returns when none
// is left or CFRunLoopStop is called; a stop that comes before the loop runs counts.
void CFRunLoopRun();
void CFRunLoopStop(CFRunLoopRef loop);

typedef void (*CFRunLoopTimerCallBack)(CFRunLoopTimerRef timer, void* info);
struct CFRunLoopTimerContext;  // no value but null is of use here

CFAbsoluteTime CFAbsoluteTimeGetCurrent();

// A timer that calls back at the date, on the thread of the run loop that it is added to, and then
// at each date that is set. The interval has no effect here: give one that never passes. Null when
// there is no memory. The caller owns the result.
CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                                       CFTimeInterval interval, CFOptionFlags flags, CFIndex order,
                                       CFRunLoopTimerCallBack callback,
                                       CFRunLoopTimerContext* context);
void CFRunLoopTimerSetNextFireDate(CFRunLoopTimerRef timer, CFAbsoluteTime fireDate);
void CFRunLoopAddTimer(CFRunLoopRef loop, CFRunLoopTimerRef timer, CFRunLoopMode mode);

typedef struct __FSEventStream* FSEventStreamRef;
typedef const struct __FSEventStream* ConstFSEventStreamRef;
typedef UInt32 FSEventStreamCreateFlags;
typedef UInt32 FSEventStreamEventFlags;
typedef UInt64 FSEventStreamEventId;
struct FSEventStreamContext;  // no value but null is of use here

enum : FSEventStreamCreateFlags { kFSEventStreamCreateFlagWatchRoot = 0x04 };
enum : FSEventStreamEventFlags {
  kFSEventStreamEventFlagNone = 0x00,
  kFSEventStreamEventFlagMustScanSubDirs =
      0x01,  // with KernelDropped: events were lost; every folder is named
  kFSEventStreamEventFlagKernelDropped = 0x04,
  kFSEventStreamEventFlagRootChanged = 0x20,
};
enum : FSEventStreamEventId { kFSEventStreamEventIdSinceNow = 0xFFFFFFFFFFFFFFFFULL };

// `paths` is an array of C strings, valid during the call.
typedef void (*FSEventStreamCallback)(ConstFSEventStreamRef stream, void* clientInfo, size_t count,
                                      void* paths, const FSEventStreamEventFlags* flags,
                                      const FSEventStreamEventId* ids);

// A stream for the one path in `paths`; `latency` is in seconds. What changes in a folder after it
// was given to watchFolder (StreamExtension.h) is delivered once the stream runs; where none was,
// what changes after the start. Null when there is no path or no memory.
FSEventStreamRef FSEventStreamCreate(CFAllocatorRef allocator, FSEventStreamCallback callback,
                                     FSEventStreamContext* context, CFArrayRef paths,
                                     FSEventStreamEventId sinceWhen, CFTimeInterval latency,
                                     FSEventStreamCreateFlags flags);
void FSEventStreamScheduleWithRunLoop(FSEventStreamRef stream, CFRunLoopRef loop,
                                      CFRunLoopMode mode);

// Waits until the tree is watched, and starts delivering. False when the system gives no inotify
// instance or thread, or at a second start; a missing folder is no failure, its appearance is an
// event. Throws std::bad_alloc when there is no memory, and so does CFRunLoopRun when the stream's
// thread has ended for that.
Boolean FSEventStreamStart(FSEventStreamRef stream);

// Stop ends the stream's thread, Invalidate takes it off its run loop, Release closes its
// descriptors and frees it; in this order.
void FSEventStreamStop(FSEventStreamRef stream);
void FSEventStreamInvalidate(FSEventStreamRef stream);
void FSEventStreamRelease(FSEventStreamRef stream);
