// Declarations without definitions, shaped like the system's: as many as it takes to type-check
// src/ for macOS elsewhere. Unlike those in platform/linux, the types are opaque and the
// enumerations plain.
#pragma once

#include <cstddef>

extern "C" {
typedef unsigned char Boolean;
typedef unsigned int UInt32;
typedef unsigned long long UInt64;
typedef long CFIndex;
typedef double CFTimeInterval;
typedef double CFAbsoluteTime;
typedef unsigned long CFOptionFlags;
typedef UInt32 CFStringEncoding;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFArray* CFArrayRef;
typedef struct __CFRunLoop* CFRunLoopRef;
typedef CFStringRef CFRunLoopMode;
struct CFArrayCallBacks;

enum { kCFStringEncodingUTF8 = 0x08000100 };
extern const CFAllocatorRef kCFAllocatorDefault;
extern const CFRunLoopMode kCFRunLoopDefaultMode;

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char* text, CFStringEncoding);
CFArrayRef CFArrayCreate(CFAllocatorRef, const void** values, CFIndex, const CFArrayCallBacks*);
CFRunLoopRef CFRunLoopGetCurrent(void);
void CFRunLoopRun(void);

struct CFRunLoopTimerContext;
typedef struct __CFRunLoopTimer* CFRunLoopTimerRef;
typedef void (*CFRunLoopTimerCallBack)(CFRunLoopTimerRef, void* info);
CFAbsoluteTime CFAbsoluteTimeGetCurrent(void);
CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef, CFAbsoluteTime, CFTimeInterval,
                                       CFOptionFlags, CFIndex, CFRunLoopTimerCallBack,
                                       CFRunLoopTimerContext*);
void CFRunLoopTimerSetNextFireDate(CFRunLoopTimerRef, CFAbsoluteTime);
void CFRunLoopAddTimer(CFRunLoopRef, CFRunLoopTimerRef, CFStringRef mode);

struct FSEventStreamContext;
typedef struct __FSEventStream* FSEventStreamRef;
typedef const struct __FSEventStream* ConstFSEventStreamRef;
typedef UInt32 FSEventStreamCreateFlags;
typedef UInt32 FSEventStreamEventFlags;
typedef UInt64 FSEventStreamEventId;
typedef void (*FSEventStreamCallback)(ConstFSEventStreamRef, void* clientInfo, size_t count,
                                      void* eventPaths, const FSEventStreamEventFlags*,
                                      const FSEventStreamEventId*);

enum { kFSEventStreamCreateFlagWatchRoot = 0x04 };
enum { kFSEventStreamEventFlagRootChanged = 0x20 };
enum { kFSEventStreamEventIdSinceNow = 0xFFFFFFFFFFFFFFFFULL };

FSEventStreamRef FSEventStreamCreate(CFAllocatorRef, FSEventStreamCallback, FSEventStreamContext*,
                                     CFArrayRef paths, FSEventStreamEventId since, CFTimeInterval,
                                     FSEventStreamCreateFlags);
void FSEventStreamScheduleWithRunLoop(FSEventStreamRef, CFRunLoopRef, CFStringRef mode);
Boolean FSEventStreamStart(FSEventStreamRef);
}
