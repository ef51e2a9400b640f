#include "FSEventWatcher.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "FSChangeBatch.h"
#include "FSPaths.h"
#include "FSReconciliation.h"
#include "FSTransit.h"
#include "StreamExtension.h"

std::string _path;
bool _showAll = false;
bool _debugMode = false;
std::string _logFile;
bool _doEncodeOutput = false;
Mutex mainlock;
FSResourcePtr _pathResource;

FSTree* FSEventWatcher::sTree = nullptr;
FSChangeEvents* FSEventWatcher::sChanges = nullptr;
bool (*FSEventWatcher::sNamesBehind)(ConstFSEventStreamRef, size_t, FSNames&) = namesBehind;

namespace {

constexpr int kLinesPerWake = 3000;
constexpr CFTimeInterval kLatency = 0.5;  // seconds
constexpr CFTimeInterval kNever = 1e10;
constexpr int kMostPasses = 7;             // of one callback
constexpr int kMostRetries = 1000;         // folders in a row,
constexpr CFTimeInterval kRetryPause = 1;  // and the pause after them

// The stream's path, kept for the life of the process because the stream may refer to it.
CFStringRef watchedPath = nullptr;
CFArrayRef watchedPaths = nullptr;

// For RetryUnread: the stream that is asked to name folders again, and the timer that fires when a
// retry is due. Null until the stream runs.
FSEventStreamRef retryStream = nullptr;
CFRunLoopTimerRef retryTimer = nullptr;

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

// What a root record says: the folder as it was at the start, so that readers recognise it. One
// that was not there then is described as it is now.
FSResource rootResource(const FSResourcePtr& now) {
  if (_pathResource != nullptr) return *_pathResource;
  FSResource resource(0, _path, true, {}, {}, 0, "");
  if (now != nullptr) {
    resource = *now;
    resource.isFolder = true;  // root records are of folders only
  }
  return resource;
}

// An event of the watched folder itself has the ID 0.
void checkRoot(FSEventStreamEventId id, FSChangeList& batch) {
  if (id != 0) return;
  const FSResourcePtr now = FSTree::GetResource(_path);
  batch.emplace_back(now != nullptr ? "rootcreate" : "rootdelete", rootResource(now));
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

// Returns whether the other side is left to report; so does compareNamed.
bool compare(const std::string& key, FSTransit& transit) {
  const MutexLock lock(mainlock);
  return FSReconciliation(key, *FSEventWatcher::sTree, transit, *FSEventWatcher::sChanges).Run();
}

// The same for an event, which may be about a few names only.
bool compareNamed(const std::string& key, ConstFSEventStreamRef stream, size_t event,
                  FSTransit& transit) {
  FSNames names;
  if (!FSEventWatcher::sTree->IsLarge(key) || !FSEventWatcher::sNamesBehind(stream, event, names)) {
    return compare(key, transit);
  }
  const MutexLock lock(mainlock);
  return FSReconciliation(key, *FSEventWatcher::sTree, transit, *FSEventWatcher::sChanges)
      .RunOn(names);
}

void compareBothSides(const std::string& key, FSTransit& transit) {
  if (compare(key, transit)) compare(key, transit);
}

void retry(CFRunLoopTimerRef /*timer*/, void* /*info*/) {
  FSEventWatcher::RetryUnread(std::chrono::steady_clock::now());
}

// Sets the timer to the next retry.
void setRetryTimer() {
  if (retryTimer == nullptr) return;
  CFTimeInterval wait = kNever;
  FSTree& tree = *FSEventWatcher::sTree;
  for (const auto& next : {tree.retries.Next(), tree.byNames.Next()}) {
    if (!next) continue;
    const std::chrono::duration<double> left = *next - std::chrono::steady_clock::now();
    wait = std::min(wait, std::max(left.count(), kRetryPause));
  }
  CFRunLoopTimerSetNextFireDate(retryTimer, CFAbsoluteTimeGetCurrent() + wait);
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
  // The stream watches each folder before the scan reads it, so that what changes during the scan
  // is reported after it.
  const bool isCreated = CreateStream();
  if (isCreated) {
    sTree->beforeScanning = [this](const std::string& key, const OpenFolder& folder) {
      watchFolder(eventStream, key, folder);
    };
  }
  sTree->InitWithPath(_path, *sChanges, _showAll);
  sTree->beforeScanning = nullptr;
  queueLine("scan", "complete");
  if (!isCreated) return;
  FSEventStreamScheduleWithRunLoop(eventStream, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode);
  retryStream = eventStream;
  retryTimer = CFRunLoopTimerCreate(kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + kNever,
                                    kNever, 0, 0, retry, nullptr);
  CFRunLoopAddTimer(CFRunLoopGetCurrent(), retryTimer, kCFRunLoopDefaultMode);
  setRetryTimer();
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

void FSEventWatcher::FSEvents_Callback(ConstFSEventStreamRef stream, void* /*clientInfo*/,
                                       size_t count, const char* const* paths,
                                       const FSEventStreamEventFlags* flags,
                                       const FSEventStreamEventId* ids) {
  if (count == 0) return;
  FSTransit transit(*sTree);
  std::string reported;  // with both sides
  for (size_t i = count; i-- > 0;) {
    const bool isRoot = (flags[i] & kFSEventStreamEventFlagRootChanged) != 0;
    if (!isRoot && !Utility::isAllowedPath(paths[i])) continue;
    logEvent(paths[i], ids[i], flags[i]);
    if (isRoot) {
      checkRoot(ids[i], transit.records);
    } else {
      std::string key = FSPaths::keyOf(paths[i]);
      if (key == reported) continue;
      reported = compareNamed(key, stream, i, transit) ? "" : std::move(key);
    }
  }
  EmitAndCheck(transit);
}

void FSEventWatcher::RetryUnread(std::chrono::steady_clock::time_point now) {
  FSTransit transit(*sTree);
  for (int i = 0; i < kMostRetries; ++i) {
    std::optional<std::string> folder = sTree->retries.Take(now);
    if (!folder) folder = sTree->byNames.Take(now);
    if (!folder) break;
    if (!Utility::isAllowedPath(*folder + "/")) continue;
    if (retryStream != nullptr && nameAgain(retryStream, *folder)) continue;
    compareBothSides(*folder, transit);
  }
  EmitAndCheck(transit);
}

// Emits what has been compared, and compares the folders again for which the snapshot does not
// agree with the disk then. Ends after a fixed number of passes at the latest: folders that keep
// changing while they are compared are named again by the stream, and what is in doubt is compared
// again at the end of every callback.
void FSEventWatcher::EmitAndCheck(FSTransit& transit) {
  for (int pass = 1; pass <= kMostPasses; ++pass) {
    FSChangeBatch(*sTree, *sChanges, transit).Emit();
    const std::vector<std::string> next = transit.Check();
    if (next.empty() || pass == kMostPasses) break;
    for (const std::string& folder : next) compareBothSides(folder, transit);
  }
  setRetryTimer();
}

void FSEventWatcher::PrintChangedFiles(const std::string& folder, FSChangeList& batch) {
  FSTransit transit(*sTree);
  compare(FSPaths::keyOf(folder), transit);
  for (FSChangedResource& record : transit.Settle()) batch.push_back(std::move(record));
}

int32_t FSEventWatcher::IndexOfByINode(const FSChangedResource& record, const FSChangeList& list) {
  const auto found = std::find_if(list.begin(), list.end(), [&](const FSChangedResource& other) {
    return other.inode == record.inode;
  });
  return found == list.end() ? -1 : static_cast<int32_t>(found - list.begin());
}

void launchWatcher(std::string path, bool showAll, bool debugMode, std::string logFile,
                   bool doEncodeOutput) {
  std::optional<FSEventWatcher> watcher;
  try {
    watcher.emplace().start(path, showAll, debugMode, logFile, doEncodeOutput);
  } catch (const std::exception&) {
    std::printf("watcher not started.");
  }
}
