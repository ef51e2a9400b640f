// What the event stream can do beyond the API. This header has a namesake for each system.
#pragma once

#include <CoreServices/CoreServices.h>

#include <string>

// Names the folder, given without a final "/", in a batch to come, as if something in it had come
// and gone: for a reader that could not read it. False where that cannot be done; the reader must
// read the folder by itself then. The thread that runs the stream's loop.
inline bool nameAgain(FSEventStreamRef /*stream*/, const std::string& /*path*/) { return false; }
