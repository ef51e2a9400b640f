// The watcher ties the program together: it owns the snapshot and the output queue, starts the
// event stream, and turns every batch of events into records. Including this header gives the whole
// tool.
//
// One watcher per process, made and destroyed on the main thread; everything here runs on that
// thread. Lock order: mainlock, FSTree::treeMutex, FSChangeEvents::outputLock.
#pragma once

#include <CoreServices/CoreServices.h>

#include <string>
#include <vector>

#include "FSChangeEvents.h"
#include "FSEventsTree.h"
#include "FSResource.h"
#include "FSTree.h"
#include "ThreadSafety.h"
#include "utility.h"

// The settings of the process. FSEventWatcher::start writes them before any other thread exists;
// nothing does afterwards.
extern std::string _path;  // the watched folder, as given
extern bool _showAll;      // list the snapshot
extern bool _debugMode;    // write the debug log
extern std::string _logFile;
extern bool _doEncodeOutput;  // percent-encode paths

// Held while a folder is compared and while a record is handed on.
extern Mutex mainlock;

// The watched folder itself as `start` found it; null when it could not be examined then.
extern FSResourcePtr _pathResource;

class FSEventWatcher {
 public:
  // Makes the output queue and an empty tree.
  FSEventWatcher();

  // Destroys the tree, then the queue, which waits for the emitter's pause.
  virtual ~FSEventWatcher();
  FSEventWatcher(const FSEventWatcher&) = delete;
  FSEventWatcher& operator=(const FSEventWatcher&) = delete;

  // Echoes the settings, makes the event stream, takes the snapshot, starts the stream and runs the
  // run loop. Returns when the stream cannot be started, without a word; else when the run loop
  // ends. Lets standard exceptions through.
  void start(std::string& path, bool& showAll, bool& debugMode, std::string& logFile,
             const bool& doEncodeOutput);

  // Turns one batch of events into records. The paths name folders and end with "/"; events are
  // handled from the last to the first. Needs a watcher, the settings and an initialised tree, but
  // no stream.
  static void FSEvents_Callback(ConstFSEventStreamRef stream, void* clientInfo, size_t count,
                                const char* const* paths, const FSEventStreamEventFlags* flags,
                                const FSEventStreamEventId* ids) EXCLUDES(mainlock);

  // Compares the folder, named with its final "/", with the snapshot, appends a record to the batch
  // for each difference and brings the snapshot up to date. Only one side is told where entries
  // both went and came, the larger one, or what went when they are equal; a second call tells the
  // other.
  static void PrintChangedFiles(const std::string& folder, FSChangeList& batch) EXCLUDES(mainlock);

  // The position of the first record in the list with the record's inode, or -1.
  static int32_t IndexOfByINode(const FSChangedResource& record, const FSChangeList& list);

  FSEventStreamRef eventStream = nullptr;

  // The two objects that the process shares; null until a watcher is made.
  static FSTree* sTree;
  static FSChangeEvents* sChanges;

 private:
  bool CreateStream();
};

// Makes the watcher, starts it and destroys it. Says "watcher not started." when `start` throws a
// standard exception, be it long after the start, for want of memory.
void launchWatcher(std::string path, bool showAll, bool debugMode, std::string logFile,
                   bool doEncodeOutput);
