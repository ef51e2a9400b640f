// The table of watched folders where it has no watch to go by: folders that could not be opened, or
// could be opened and not watched, are visited and tried again.

#include <fcntl.h>

#include <cerrno>

#include "FileStatus.h"
#include "WatchTable.h"

// The name could not be opened as a folder. Where that may be one all the same, it stays or becomes
// known without a watch; else whatever had the name has left it.
void WatchTable::Missing(Folder& parent, const std::string& name, Failure failure) {
  Folder* folder = ChildOf(parent, name);
  std::optional<FileStatus> status;
  if (failure != Failure::absent) {
    status = readStatus(AT_FDCWD, Join(PathOf(parent), name).c_str());
    if (!status) failure = failureOf(errno);
  }
  if (failure == Failure::absent || (status && !status->isFolder)) {
    if (folder != nullptr) Detach(*folder);
  } else if (status) {
    if (folder == nullptr) folder = &Enter(parent, name, -1, OpenFolder());
    if (folder->watch < 0) unwatched_[folder->serial].identity = status->identity;
    folder->isUnreadable = folder->isUnreadable || failure == Failure::denied;
    RetryLater(*folder, failure == Failure::passing);
  } else {
    RetryLater(folder != nullptr ? *folder : parent, true);
  }
}

// The folder is to be tried again. `isListed`: and to be listed then.
void WatchTable::RetryLater(Folder& folder, bool isUnlisted) {
  folder.isUnlisted = folder.isUnlisted || isUnlisted;
  toVisit_.erase(folder.serial);
  unopened_.Add(&folder, now_);
}

// Whether the folder had no watch until now and is the one that is there.
bool WatchTable::IsUnwatched(const Folder& folder, int watch, const OpenFolder& handle) const {
  if (folder.watch >= 0 || FindByWatch(watch) != nullptr) return false;
  const FileIdentity known = unwatched_.at(folder.serial).identity;
  return known == FileIdentity() || known == identityOf(handle);
}

// Compares the folder with what it was at the last visit. A watch that it has got is set already,
// so that no change falls between.
bool WatchTable::UpdateUnwatched(Folder& folder, const OpenFolder& handle, int watch) {
  Unwatched& known = unwatched_.at(folder.serial);
  const FileIdentity identity = identityOf(handle);
  if (identity != FileIdentity()) known.identity = identity;
  const uint64_t fingerprint = fingerprintOf(handle);
  const bool hasChanged = std::exchange(known.fingerprint, fingerprint) != fingerprint;
  if (hasChanged) MarkFolder(folder, kLost | kGained);
  if (watch >= 0) {
    SetWatch(folder, watch);
  } else {
    toVisit_.insert(folder.serial);
  }
  return hasChanged;
}

bool WatchTable::VisitNext() {
  if (toVisit_.empty()) return false;
  auto next = toVisit_.upper_bound(visited_);
  if (next == toVisit_.end()) next = toVisit_.begin();
  visited_ = *next;
  Folder& folder = *unwatched_.at(visited_).folder;
  if (!IsInTree(folder)) return false;
  const size_t before = toVisit_.size();
  if (folder.parent != nullptr) {
    Examine(*folder.parent, std::string(folder.name), Walk{});
    return toVisit_.size() < before;
  }
  OpenFolder handle(folder.name, true);
  if (!handle.isOpen() || identityOf(handle) != unwatched_.at(visited_).identity) {
    watched_.DoubtNames();
  } else if (UpdateUnwatched(folder, handle, inotify_.Add(handle))) {
    List(folder, std::move(handle), Walk{.length = folder.name.size()});
  }
  return toVisit_.size() < before;
}

bool WatchTable::RetryNext(Time now) {
  now_ = now;
  const std::optional<Folder*> next = unopened_.Take(now);
  if (!next) return false;
  Folder& folder = **next;
  if (!IsInTree(folder)) return true;
  if (folder.parent == nullptr) {
    watched_.DoubtNames();
  } else {
    Examine(*folder.parent, std::string(folder.name), Walk{});
  }
  return true;
}

// The orphan without a watch that is this folder.
WatchTable::Folder* WatchTable::FindUnwatched(const FileIdentity& identity) const {
  if (identity == FileIdentity()) return nullptr;
  for (const auto& [top, orphan] : orphans_) {
    const auto found = unwatched_.find(top->serial);
    if (found != unwatched_.end() && found->second.identity == identity) return top;
  }
  return nullptr;
}
