#include "FSEventWatcher.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <unordered_set>
#include <utility>

#include "FSChangeBatch.h"
#include "FSReconciliation.h"

std::string _path;
bool _showAll = false;
bool _debugMode = false;
std::string _logFile;
bool _doEncodeOutput = false;
Mutex mainlock;
FSResourcePtr _pathResource;

FSTree* FSEventWatcher::sTree = nullptr;
FSChangeEvents* FSEventWatcher::sChanges = nullptr;

namespace {

constexpr int kLinesPerWake = 3000;
constexpr CFTimeInterval kLatency = 0.5;  // seconds

// The stream's path, kept for the life of the process because the stream may refer to it.
CFStringRef watchedPath = nullptr;
CFArrayRef watchedPaths = nullptr;

const char* word(bool value) { return value ? "true" : "false"; }

void queueLine(const char* key, const std::string& value) {
  FSChangeEvents& changes = *FSEventWatcher::sChanges;
  changes.AppendOutput(changes.templates->Fill(key, value), true);
}

void echoSettings() {
  const FSChangeEvents& changes = *FSEventWatcher::sChanges;
  queueLine("path", changes.encode(_path, _doEncodeOutput));
  queueLine("show_all", word(_showAll));
  queueLine("debug", word(_debugMode));
  queueLine("log", changes.encode(_logFile, _doEncodeOutput));
  queueLine("encode_output", word(_doEncodeOutput));
}

// The system's callback type has untyped event paths; this is the one place where they get their
// type.
void streamCallback(ConstFSEventStreamRef stream, void* clientInfo, size_t count, void* paths,
                    const FSEventStreamEventFlags* flags, const FSEventStreamEventId* ids) {
  FSEventWatcher::FSEvents_Callback(stream, clientInfo, count,
                                    static_cast<const char* const*>(paths), flags, ids);
}

// What a root record says: the folder as it was at the start, so that readers know it again. One
// that was not there then is described as it is now.
FSResource rootResource(const FSResourcePtr& now) {
  if (_pathResource != nullptr) return *_pathResource;
  FSResource resource(0, _path, true, {}, {}, 0, "");
  if (now != nullptr) {
    resource = *now;
    resource.isFolder = true;  // there is no record of a root that is none
  }
  return resource;
}

void checkRoot(FSEventStreamEventId id, FSChangeList& batch) {
  if (id != 0) return;
  const FSResourcePtr now = FSTree::GetResource(_path);
  FSChangedResource record(now != nullptr ? "rootcreate" : "rootdelete", rootResource(now));
  const MutexLock lock(mainlock);
  batch.push_back(std::move(record));
}

void logEvent(const char* path, FSEventStreamEventId id, FSEventStreamEventFlags flags) {
  FSChangeEvents& changes = *FSEventWatcher::sChanges;
  if (!changes.logging) return;
  if ((flags & kFSEventStreamEventFlagRootChanged) != 0) {
    changes.dolog(FSEventsTree::buildString("ROOT FOLDER CHANGED \"%s\" , EVENT ID %llu, FLAGS %u",
                                            path, id, flags));
  } else {
    changes.dolog(
        FSEventsTree::buildString("CHANGED \"%s\" , EVENT ID %llu, FLAGS %u", path, id, flags));
  }
}

void compareBothSides(const std::string& key, FSChangeList& batch) {
  const std::string folder = FSTree::FolderOf(key);
  FSEventWatcher::PrintChangedFiles(folder, batch);
  FSEventWatcher::PrintChangedFiles(folder, batch);
}

}  // namespace

FSEventWatcher::FSEventWatcher() {
  sChanges = new FSChangeEvents();
  sTree = new FSTree();
}

FSEventWatcher::~FSEventWatcher() {
  delete std::exchange(sTree, nullptr);
  delete std::exchange(sChanges, nullptr);
}

void FSEventWatcher::start(std::string& path, bool& showAll, bool& debugMode, std::string& logFile,
                           const bool& doEncodeOutput) {
  _path = path;
  _showAll = showAll;
  _debugMode = debugMode;
  _logFile = logFile;
  _doEncodeOutput = doEncodeOutput;
  if (sChanges == nullptr) sChanges = new FSChangeEvents();
  if (sTree == nullptr) sTree = new FSTree();
  sChanges->encodeOutput = _doEncodeOutput;
  sChanges->logging = _debugMode;
  sChanges->logFile = _logFile;

  _pathResource = FSTree::GetResource(_path);
  echoSettings();
  queueLine("scan", "begin");
  sChanges->StartThrow(kLinesPerWake);
  // The stream is there before the scan, so that what changes during the scan is told after it, and
  // the watches are being set meanwhile.
  const bool isCreated = CreateStream();
  sTree->InitWithPath(_path, *sChanges, _showAll);
  queueLine("scan", "complete");
  if (!isCreated) return;
  FSEventStreamScheduleWithRunLoop(eventStream, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode);
  if (FSEventStreamStart(eventStream)) CFRunLoopRun();
}

bool FSEventWatcher::CreateStream() {
  watchedPath =
      CFStringCreateWithCString(kCFAllocatorDefault, _path.c_str(), kCFStringEncodingUTF8);
  if (watchedPath == nullptr) return false;
  const void* paths[] = {watchedPath};
  watchedPaths = CFArrayCreate(kCFAllocatorDefault, paths, 1, nullptr);
  eventStream = FSEventStreamCreate(kCFAllocatorDefault, streamCallback, nullptr, watchedPaths,
                                    kFSEventStreamEventIdSinceNow, kLatency,
                                    kFSEventStreamCreateFlagWatchRoot);
  return eventStream != nullptr;
}

void FSEventWatcher::FSEvents_Callback(ConstFSEventStreamRef /*stream*/, void* /*clientInfo*/,
                                       size_t count, const char* const* paths,
                                       const FSEventStreamEventFlags* flags,
                                       const FSEventStreamEventId* ids) {
  FSChangeList batch;
  std::unordered_set<std::string> compared;
  for (size_t i = count; i-- > 0;) {
    const bool isRoot = (flags[i] & kFSEventStreamEventFlagRootChanged) != 0;
    if (!isRoot && !Utility::isAllowedPath(paths[i])) continue;
    logEvent(paths[i], ids[i], flags[i]);
    if (isRoot) {
      checkRoot(ids[i], batch);
    } else {
      PrintChangedFiles(paths[i], batch);
      compared.insert(FSTree::KeyOf(paths[i]));
    }
  }
  std::unordered_set<std::string> retried;
  do {
    const std::vector<std::string> moved = FSChangeBatch(std::exchange(batch, {})).Emit();
    // A folder compared at its new place before it was known to be moved has been compared with
    // nothing. Now it has its lists.
    for (const std::string& folder : moved) {
      if (compared.erase(folder) != 0) compareBothSides(folder, batch);
    }
    for (const std::string& folder : sTree->Unread()) {
      const bool isNext = Utility::isAllowedPath(folder + "/") && retried.insert(folder).second;
      if (isNext) compareBothSides(folder, batch);
    }
    for (FSChangedResource& gone : sTree->TakeUntrue()) batch.push_back(std::move(gone));
  } while (!batch.empty());
  sTree->ForgetTaken();
}

void FSEventWatcher::PrintChangedFiles(const std::string& folder, FSChangeList& batch) {
  const MutexLock lock(mainlock);
  FSReconciliation(folder, *sTree, *sChanges, batch).Run();
}

int32_t FSEventWatcher::IndexOfByINode(const FSChangedResource& record, const FSChangeList& list) {
  const auto found = std::find_if(list.begin(), list.end(), [&](const FSChangedResource& other) {
    return other.inode == record.inode;
  });
  return found == list.end() ? -1 : static_cast<int32_t>(found - list.begin());
}

void launchWatcher(std::string path, bool showAll, bool debugMode, std::string logFile,
                   bool doEncodeOutput) {
  FSEventWatcher watcher;
  try {
    watcher.start(path, showAll, debugMode, logFile, doEncodeOutput);
  } catch (const std::exception&) {
    std::printf("watcher not started.");
  }
}
