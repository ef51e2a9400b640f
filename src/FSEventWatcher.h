// The watcher ties the program together: it owns the snapshot and the output queue, starts the
// event stream, and turns every batch of events into records. Including this header gives the whole
// tool.
//
// One watcher per process, made and destroyed on the main thread; everything here runs on that
// thread. Lock order: mainlock, FSTree::treeMutex, FSChangeEvents::outputLock.
#pragma once

#include <CoreServices/CoreServices.h>

#include <chrono>
#include <string>

#include "FSChangeEvents.h"
#include "FSEventsTree.h"
#include "FSResource.h"
#include "FSSettings.h"
#include "FSTransit.h"
#include "FSTree.h"
#include "ThreadSafety.h"
#include "utility.h"

class FSEventWatcher {
 public:
  // Makes the output queue and an empty tree.
  FSEventWatcher();

  // Destroys the tree, then the queue, which waits for the emitter's pause.
  virtual ~FSEventWatcher();
  FSEventWatcher(const FSEventWatcher&) = delete;
  FSEventWatcher& operator=(const FSEventWatcher&) = delete;

  // Echoes the settings, makes the event stream, takes the snapshot, starts the stream and runs the
  // run loop. Returns without output when the stream cannot be made or started; else when the
  // run loop ends. Standard exceptions propagate.
  void start(std::string& path, bool& showAll, bool& debugMode, std::string& logFile,
             const bool& doEncodeOutput);

  // Turns one batch of events into records. The paths name folders and end with "/"; events are
  // handled from the last to the first. Needs a watcher, the settings and an initialised tree, but
  // no stream.
  static void FSEvents_Callback(ConstFSEventStreamRef stream, void* clientInfo, size_t count,
                                const char* const* paths, const FSEventStreamEventFlags* flags,
                                const FSEventStreamEventId* ids) EXCLUDES(mainlock);

  // Has the folders compared again whose retry time has come: those that could not be read, or of
  // which only names were examined. The stream is asked to name them; where it cannot, they are
  // compared at once, and what differs is turned into records.
  static void RetryUnread(std::chrono::steady_clock::time_point now) EXCLUDES(mainlock);

  FSEventStreamRef eventStream = nullptr;

  // Sets `names` to those that an event of the running callback is about, by the event's number in
  // the batch, and returns whether they are known. The event stream's function; tests replace it.
  static bool (*sNamesBehind)(ConstFSEventStreamRef stream, size_t event, FSNames& names);

  // The two objects that the process shares; null until a watcher is made.
  static FSTree* sTree;
  static FSChangeEvents* sChanges;

  // ---- For programs that use the watcher as a library. The tool itself uses none of these.

  // Compares the folder, named with its final "/", with the snapshot, appends a record to the batch
  // for each difference and brings the snapshot up to date, without emitting anything. Where
  // entries both disappeared and appeared, only one side is reported, the larger one, or what
  // disappeared when they are equal; a second call reports the other.
  static void PrintChangedFiles(const std::string& folder, FSChangeList& batch) EXCLUDES(mainlock);

  // The position of the first record in the list with the record's inode, or -1.
  static int32_t IndexOfByINode(const FSChangedResource& record, const FSChangeList& list);

 private:
  static void EmitAndCheck(FSTransit& transit) EXCLUDES(mainlock);
  bool CreateStream();
};

// Makes the watcher, starts it and destroys it. Prints "watcher not started." when `start` throws a
// standard exception, even long after the start, for lack of memory.
void launchWatcher(std::string path, bool showAll, bool debugMode, std::string logFile,
                   bool doEncodeOutput);
