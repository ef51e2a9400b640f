// What the kernel may do at the very call: it refuses, hands over events in small pieces or loses
// them, and the disk changes under it. The linker puts the functions of faults.cpp between the
// project's code and the C library.
#pragma once

#include <sys/inotify.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <string>

// Before "open PATH", "list PATH", "status PATH" or "watch PATH": the error number to fail with, or
// 0.
extern std::function<int(const std::string& call)> beforeCall;
extern std::function<void()> beforeOpening;  // a folder

// What a read of events gets.
struct Queue {
  size_t size = SIZE_MAX;  // bytes at most
  int reads = INT_MAX;     // that get something
  bool isFull = false;     // and has lost what the next read does not get
};
extern Queue queue;

extern bool ignoresCase;  // an entry is found by its name in the other case

constexpr size_t kOneEvent = sizeof(inotify_event) + 16;  // with a short name
