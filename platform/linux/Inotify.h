// An inotify instance. Used by one thread at a time; what fails says so by its value and leaves
// errno set.
#pragma once

#include <sys/inotify.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "Descriptor.h"
#include "OpenFolder.h"

class Inotify {
 public:
  Inotify();

  bool isOpen() const { return descriptor_.isOpen(); }
  int number() const { return descriptor_.number(); }

  // Watches the open folder, whatever its path is by now. The watch descriptor, the same as before
  // for a folder that is watched already, or -1.
  int Add(const OpenFolder& folder, uint32_t mask);
  void Remove(int watch);

  // Appends what the kernel's queue holds, at most about `limit` bytes, to `events`. False when
  // there was nothing.
  bool Read(std::string& events, size_t limit);

 private:
  Descriptor descriptor_;
};

// Calls `visit(event, name)` for each event in the buffer. The name is part of the buffer.
template <typename Visit>
void eachEvent(const std::string& events, Visit visit) {
  for (size_t at = 0; at + sizeof(inotify_event) <= events.size();) {
    inotify_event event;
    std::memcpy(&event, events.data() + at, sizeof event);
    const char* name = events.data() + at + sizeof event;
    visit(event, std::string_view(name, strnlen(name, event.len)));
    at += sizeof event + event.len;
  }
}
