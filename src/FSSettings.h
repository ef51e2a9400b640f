// The settings of the process, and its outermost lock. FSEventWatcher::start writes the settings
// before any other thread exists; nothing does afterwards.
#pragma once

#include <string>

#include "FSResource.h"
#include "ThreadSafety.h"

extern std::string _path;  // the watched folder, as given
extern bool _showAll;      // list the snapshot
extern bool _debugMode;    // write the debug log
extern std::string _logFile;
extern bool _doEncodeOutput;  // percent-encode paths

// The watched folder itself as `start` found it; null when it could not be examined then.
extern FSResourcePtr _pathResource;

// Held while a folder is compared and while a record is queued. Locks are taken in the order
// mainlock, FSTree::treeMutex, FSChangeEvents::outputLock.
extern Mutex mainlock;
