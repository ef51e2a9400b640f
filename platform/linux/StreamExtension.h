// What the event stream can do beyond the API. This header has a namesake for each system.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "CoreServices/CoreServices.h"
#include "OpenFolder.h"

// Names the folder, given without a final "/", in a batch to come, as if something in it had come
// and gone: for a callback that could not read it. False where that cannot be done; it must
// read the folder by itself then. The thread that runs the stream's loop.
bool nameAgain(FSEventStreamRef stream, const std::string& path);

// Watches the open folder, which is at the path (without a final "/"), from now on. To be called
// for each folder, the watched one first, before it is read for the first time; a folder for which
// it is not called is not watched. Between the stream's creation and its start, by the thread that
// made it. Where it is never called, the stream watches the whole tree when it is started.
void watchFolder(FSEventStreamRef stream, const std::string& path, const OpenFolder& folder);

// The names behind an event of the batch that is being delivered, by the event's number in it: no
// other entry of the folder has come, gone, been written or had its attributes changed since the
// folder was named the last time. Sorted, each once. False where that is not known. During the
// callback only, by its thread.
bool namesBehind(ConstFSEventStreamRef stream, size_t event, std::vector<std::string>& names);
