// What the event stream can do beyond the API. This header has a namesake for each system.
#pragma once

#include <CoreServices/CoreServices.h>

#include <cstddef>
#include <string>
#include <vector>

#include "OpenFolder.h"

// Names the folder, given without a final "/", in a batch to come, as if something in it had come
// and gone: for a callback that could not read it. False where that cannot be done; it must
// read the folder by itself then. The thread that runs the stream's loop.
inline bool nameAgain(FSEventStreamRef /*stream*/, const std::string& /*path*/) { return false; }

// The stream watches the whole tree by itself.
inline void watchFolder(FSEventStreamRef /*stream*/, const std::string& /*path*/,
                        const OpenFolder& /*folder*/) {}

// The names behind an event, where they are known. Here they are not.
inline bool namesBehind(ConstFSEventStreamRef /*stream*/, size_t /*event*/,
                        std::vector<std::string>& /*names*/) {
  return false;
}
