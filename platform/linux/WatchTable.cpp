#include "WatchTable.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace {

constexpr uint32_t kMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                           IN_CLOSE_WRITE | IN_ATTRIB | IN_EXCL_UNLINK;
constexpr uint32_t kNameMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

constexpr int kMostOpen = 256;            // folders held open on the way down
constexpr int kFoldersPerRead = 64;       // of a walk
constexpr size_t kMostUnread = 16 << 20;  // bytes of events kept during a walk
constexpr uint32_t kMostHeldBack = 3;     // batches
constexpr size_t kMostDepartures = 1 << 16;

uint8_t marksOf(uint32_t mask, uint8_t lost, uint8_t gained, uint8_t written) {
  uint8_t marks = 0;
  if ((mask & (IN_DELETE | IN_MOVED_FROM)) != 0) marks |= lost;
  if ((mask & (IN_CREATE | IN_MOVED_TO)) != 0) marks |= gained;
  if ((mask & (IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB)) != 0) marks |= written;
  return marks;
}

bool isPermission(int error) { return error == EACCES || error == EPERM; }

std::string join(const std::string& folder, const std::string& name) {
  return folder == "/" ? folder + name : folder + "/" + name;
}

// A folder must be nameable with its final "/".
bool isTooLong(size_t length) { return length + 2 > PATH_MAX; }

// The longest path of a folder whose entries can all be named.
constexpr size_t kSafeLength = PATH_MAX - NAME_MAX - 2;

// One folder to name, once or twice in a row.
struct Mention {
  std::string path;
  bool isTwice;
};

// Parents come before children when paths sort by bytes, because every path ends with "/".
void appendSorted(std::vector<Mention>& mentions, FSEventStreamEventFlags flags,
                  std::vector<NamedFolder>& batch) {
  std::sort(mentions.begin(), mentions.end(),
            [](const Mention& a, const Mention& b) { return a.path < b.path; });
  for (const Mention& mention : mentions) {
    batch.push_back({mention.path, flags});
    if (mention.isTwice) batch.push_back({mention.path, flags});
  }
}

// The callback is to meet the folders that gained entries first. It goes from the last event to the
// first.
std::vector<NamedFolder> inBatchOrder(std::vector<Mention>& gaining, std::vector<Mention>& others,
                                      FSEventStreamEventFlags flags) {
  std::vector<NamedFolder> batch;
  appendSorted(gaining, flags, batch);
  appendSorted(others, flags, batch);
  std::reverse(batch.begin(), batch.end());
  return batch;
}

}  // namespace

bool WatchTable::ByName::operator()(const std::unique_ptr<Folder>& a,
                                    const std::unique_ptr<Folder>& b) const {
  return a->name < b->name;
}

bool WatchTable::ByName::operator()(const std::unique_ptr<Folder>& a, std::string_view b) const {
  return a->name < b;
}

bool WatchTable::ByName::operator()(std::string_view a, const std::unique_ptr<Folder>& b) const {
  return a < b->name;
}

WatchTable::~WatchTable() = default;

void WatchTable::WatchRoot(const std::string& path, Descriptor folder) {
  Clear();
  root_ = std::make_unique<Folder>();
  root_->name = path;
  root_->serial = ++serials_;
  root_->born = epoch_;
  rootIdentity_ = identityOf(folder);
  SetWatch(*root_, inotify_.Add(folder, kMask));
  if (root_->watch < 0) unwatched_[root_->serial].fingerprint = fingerprintOf(folder);
  List(*root_, std::move(folder), Walk{.length = path.size()});
  for (Folder* marked : marked_) marked->marks = 0;
  marked_.clear();
  fresh_.clear();
  isTreeNamed_ = true;
  ++epoch_;
}

void WatchTable::LookBack(const timespec& since) {
  if (root_ == nullptr) return;
  Descriptor folder = openFolder(AT_FDCWD, root_->name, true);
  if (folder.isOpen()) LookBack(*root_, std::move(folder), since, 0);
}

void WatchTable::LookBack(Folder& folder, Descriptor handle, const timespec& since, int depth) {
  ReadDuringWalk();
  const FolderChange change = changedSince(handle, since);
  if (change.hasOtherEntries) MarkFolder(folder, kLost | kGained);
  if (change.hasWrittenEntries) MarkFolder(folder, kWritten);
  if (depth >= kMostOpen) handle = Descriptor();
  for (const std::unique_ptr<Folder>& child : folder.children) {
    Descriptor below = handle.isOpen() ? openFolder(handle.number(), child->name)
                                       : openFolder(AT_FDCWD, PathOf(*child));
    if (below.isOpen()) LookBack(*child, std::move(below), since, depth + 1);
  }
}

void WatchTable::Clear() {
  for (auto& [top, orphan] : std::exchange(orphans_, {})) Bury(*orphan);
  if (root_ != nullptr) Bury(*root_);
  root_.reset();
  departures_.clear();
  haveLongPaths_ = false;
  isOverflown_ = needsRepair_ = isRootLost_ = isRootInDoubt_ = endsInMove_ = false;
  unread_.clear();
}

bool WatchTable::IsRoot(const Descriptor& folder) {
  if (root_ == nullptr || isRootLost_) return false;
  if (root_->watch < 0) return identityOf(folder) == rootIdentity_;
  const int watch = inotify_.Add(folder, kMask);
  if (watch >= 0 && FindByWatch(watch) == nullptr) inotify_.Remove(watch);
  return watch == root_->watch;
}

void WatchTable::NoteRoot(Descriptor folder) {
  if (root_ == nullptr) return;
  if (!folder.isOpen()) {
    root_->isUnreadable = true;
  } else if (std::exchange(root_->isUnreadable, false)) {
    List(*root_, std::move(folder), Walk{.isReplaced = true, .length = root_->name.size()});
  }
}

void WatchTable::Read() {
  Apply(std::exchange(unread_, {}));
  std::string events;
  while (inotify_.Read(events, kMostUnread)) {
    Apply(std::exchange(events, {}));
  }
}

void WatchTable::Apply(const std::string& events) {
  std::string next = events;
  do {
    eachEvent(next, [this](const inotify_event& event, const std::string& name) {
      ApplyEvent(event, name);
    });
    next = std::exchange(unread_, {});
    if (next.empty() && std::exchange(needsRepair_, false)) {
      Repair();
      next = std::exchange(unread_, {});
    }
  } while (!next.empty());
}

void WatchTable::ApplyEvent(const inotify_event& event, const std::string& name) {
  endsInMove_ = (event.mask & IN_MOVED_FROM) != 0;
  if ((event.mask & IN_Q_OVERFLOW) != 0) {
    isOverflown_ = needsRepair_ = true;
  } else if ((event.mask & (IN_IGNORED | IN_UNMOUNT)) != 0) {
    // Of a deletion the folder above hears by itself, of an unmount it does not.
    LoseWatch(event.wd, (event.mask & IN_UNMOUNT) != 0 ? kWritten : 0);
  } else if (!name.empty()) {
    // Adopting may change which folders share the watch.
    std::vector<Folder*> folders;
    for (Folder* folder = FindByWatch(event.wd); folder != nullptr; folder = folder->twin) {
      folders.push_back(folder);
    }
    for (Folder* folder : folders) ApplyTo(*folder, event, name);
  }
}

void WatchTable::ApplyTo(Folder& folder, const inotify_event& event, const std::string& name) {
  MarkFolder(folder, marksOf(event.mask, kLost, kGained, kWritten));
  if ((event.mask & IN_ISDIR) != 0 && (event.mask & (IN_MOVED_FROM | IN_MOVED_TO)) != 0) {
    haveFoldersMoved_ = true;
    if (isDelivering_ && disturbed_.size() < kMostDepartures) {
      disturbed_.emplace(folder.serial, name);
    }
  }
  const bool isKnown = ChildOf(folder, name) != nullptr;
  const bool isFolder = (event.mask & IN_ISDIR) != 0 || isKnown;
  if (isFolder && !isKnown && (event.mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
    NoteDeparture(folder, name, 0);
  }
  if (isFolder && (event.mask & (kNameMask | IN_ATTRIB)) != 0) Examine(folder, name);
  const bool isArrival =
      (event.mask & IN_ISDIR) != 0 && (event.mask & (IN_CREATE | IN_MOVED_TO)) != 0;
  if (isArrival && isDelivering_) NoteArrival(folder, name);
}

// Where two folders took the name during a callback, it may have seen the first.
void WatchTable::NoteArrival(const Folder& parent, const std::string& name) {
  const bool isFirst =
      arrivals_.size() < kMostDepartures && arrivals_.emplace(parent.serial, name).second;
  if (isFirst) return;
  if (Folder* const child = ChildOf(parent, name)) MarkAll(*child, kLost | kGained | kReplaced);
}

// The watch is gone: its folder was deleted, or its file system unmounted. Its path shows what is
// there now.
void WatchTable::LoseWatch(int watch, uint8_t marksAbove) {
  while (Folder* folder = FindByWatch(watch)) {
    UnsetWatch(*folder);
    if (folder == root_.get()) {
      isRootLost_ = isRootInDoubt_ = true;
    } else if (folder->parent != nullptr) {
      Folder& parent = *folder->parent;
      const std::string name = folder->name;
      Detach(*folder);
      MarkFolder(parent, marksAbove);
      Examine(parent, name);
    }
  }
}

// Events were lost, so the table may be wrong anywhere: walk the tree again. Cut names every folder
// then.
void WatchTable::Repair() {
  if (root_ == nullptr) return;
  Descriptor folder = openFolder(AT_FDCWD, root_->name, true);
  if (folder.isOpen() && IsRoot(folder)) {
    List(*root_, std::move(folder), Walk{.isRepair = true, .length = root_->name.size()});
    MarkAll(*root_, kLost | kGained);
  } else {
    isRootInDoubt_ = needsRepair_ = true;  // again, if it turns out to be there
  }
}

// Looks what the name in the folder is now. The path may be out of date when the folder has moved
// and the event of that is still to come: `touched` sees to it that the folder is listed again
// then.
void WatchTable::Examine(Folder& parent, const std::string& name) {
  Touch(parent);
  if (!IsInTree(parent)) return;
  const std::string path = join(PathOf(parent), name);
  if (isTooLong(path.size())) return;
  Descriptor handle = openFolder(AT_FDCWD, path);
  if (handle.isOpen()) {
    Adopt(parent, name, std::move(handle), Walk{.length = path.size()});
  } else {
    Missing(parent, name, errno);
  }
}

void WatchTable::ExamineBelow(const std::string& path) {
  Folder* parent = root_.get();
  size_t start = 0;
  for (size_t end; parent != nullptr && (end = path.find('/', start)) != std::string::npos;
       start = end + 1) {
    parent = ChildOf(*parent, path.substr(start, end - start));
  }
  if (parent != nullptr) Examine(*parent, path.substr(start));
}

// The name could not be opened as a folder. Where that may be one all the same, it stays or becomes
// known without a watch; else whatever had the name has left it.
void WatchTable::Missing(Folder& parent, const std::string& name, int error) {
  Folder* folder = ChildOf(parent, name);
  const bool isExhausted = error == EMFILE || error == ENFILE || error == ENOMEM;
  if (isPermission(error) || isExhausted) {
    struct stat status;
    if (lstat(join(PathOf(parent), name).c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      if (folder == nullptr) folder = &Enter(parent, name, -1, Descriptor());
      folder->isUnreadable = folder->isUnreadable || isPermission(error);
      if (isExhausted) {
        folder->isInDoubt = true;
        unwatched_[folder->serial].folder = folder;
      }
      return;
    }
  }
  if (folder != nullptr) Detach(*folder);
}

void WatchTable::Adopt(Folder& parent, const std::string& name, Descriptor handle, Walk walk) {
  if (walk.length > kSafeLength) haveLongPaths_ = true;
  const int watch = inotify_.Add(handle, kMask);
  Folder* folder = ChildOf(parent, name);
  if (folder != nullptr && watch >= 0 && folder->watch == watch) {
    if (!NeedsListing(*folder, walk)) return;
  } else if (folder != nullptr && IsUnwatched(*folder, watch, handle)) {
    if (!HasChangedUnwatched(*folder, handle, watch) && !NeedsListing(*folder, walk)) return;
  } else {
    if (folder != nullptr) Detach(*folder);
    folder = Relocate(watch, parent, name, handle);
    walk.isReplaced = walk.isReplaced || IsRecent(parent.replaced) ||
                      WasTaken(parent, name, folder) || (isDelivering_ && parent.born == epoch_);
    walk.isRelocated = folder != nullptr;
    if (folder != nullptr &&
        (haveLongPaths_ || walk.length + LongestBelow(*folder) > kSafeLength)) {
      // Other entries than before can be named.
      walk.isRepair = true;
      MarkAll(*folder, kLost | kGained);
    }
    if (folder == nullptr) {
      folder = &Enter(parent, name, watch, handle);
    } else if (!NeedsListing(*folder, walk)) {
      return;
    }
  }
  if (std::exchange(folder->isUnreadable, false)) walk.isReplaced = true;
  if (std::exchange(folder->isInDoubt, false)) {
    walk.isRepair = true;
    MarkFolder(*folder, kLost | kGained);
    if (folder->watch >= 0) unwatched_.erase(folder->serial);
  }
  List(*folder, std::move(handle), walk);
}

// Whether the folder had no watch until now and is the one that is there.
bool WatchTable::IsUnwatched(const Folder& folder, int watch, const Descriptor& handle) const {
  if (folder.watch >= 0 || FindByWatch(watch) != nullptr) return false;
  const FolderIdentity& known = unwatched_.at(folder.serial).identity;
  return folder.isUnreadable || known == identityOf(handle);
}

// Compares the folder with what it was at the last visit. The watch it may have got stands already,
// so that nothing falls between.
bool WatchTable::HasChangedUnwatched(Folder& folder, const Descriptor& handle, int watch) {
  Unwatched& known = unwatched_.at(folder.serial);
  known.identity = identityOf(handle);
  const uint64_t fingerprint = fingerprintOf(handle);
  const bool hasChanged = std::exchange(known.fingerprint, fingerprint) != fingerprint;
  if (hasChanged) MarkFolder(folder, kLost | kGained);
  if (watch >= 0) SetWatch(folder, watch);
  return hasChanged;
}

bool WatchTable::VisitNext() {
  if (unwatched_.empty()) return false;
  auto next = unwatched_.upper_bound(visited_);
  if (next == unwatched_.end()) next = unwatched_.begin();
  visited_ = next->first;
  Folder& folder = *next->second.folder;
  if (!IsInTree(folder)) return false;
  const size_t before = unwatched_.size();
  if (folder.parent != nullptr) {
    Examine(*folder.parent, std::string(folder.name));
    return unwatched_.size() < before;
  }
  Descriptor handle = openFolder(AT_FDCWD, folder.name, true);
  if (!handle.isOpen() || identityOf(handle) != rootIdentity_) {
    isRootInDoubt_ = true;
  } else if (HasChangedUnwatched(folder, handle, inotify_.Add(handle, kMask))) {
    List(folder, std::move(handle), Walk{.length = folder.name.size()});
  }
  return unwatched_.size() < before;
}

// Whether a folder whose watch never lapsed is to be listed all the same.
bool WatchTable::NeedsListing(const Folder& folder, const Walk& walk) const {
  return walk.isRepair || walk.isReplaced || folder.isUnreadable || folder.isInDoubt ||
         (walk.isRelocated && IsRecent(folder.touched));
}

// Takes the folder that has the watch to a new place, from among the orphans or from a path that it
// has left. Null when there is none, or when it is a second path to a folder that stands where it
// stood.
WatchTable::Folder* WatchTable::Relocate(int watch, Folder& parent, const std::string& name,
                                         const Descriptor& handle) {
  Folder* folder = watch >= 0 ? FindByWatch(watch) : FindUnwatched(identityOf(handle));
  if (folder == nullptr || folder == root_.get()) return nullptr;
  for (const Folder* above = &parent; above != nullptr; above = above->parent) {
    if (above == folder) return nullptr;
  }
  if (IsInTree(*folder)) {
    const Descriptor there = openFolder(AT_FDCWD, PathOf(*folder));
    if (there.isOpen() && identityOf(there) == identityOf(handle)) return nullptr;
    Detach(*folder);
  }
  Attach(Extract(*folder), parent, name);
  moved_.insert(folder);
  return folder;
}

// The orphan without a watch that is this folder, where birth times make sure of it.
WatchTable::Folder* WatchTable::FindUnwatched(const FolderIdentity& identity) const {
  if (identity.birth == 0) return nullptr;
  for (const auto& [top, orphan] : orphans_) {
    const auto found = unwatched_.find(top->serial);
    if (found != unwatched_.end() && found->second.identity == identity) return top;
  }
  return nullptr;
}

// Enters what the folder holds. A folder is closed before those below it are opened only where the
// tree is so deep that the handles might run out.
void WatchTable::List(Folder& folder, Descriptor handle, const Walk& walk) {
  ReadDuringWalk();
  FolderListing listing = listFolder(handle);
  DetachUnlisted(folder, listing.subfolders);
  if (walk.depth >= kMostOpen) handle = Descriptor();
  for (const std::string& name : listing.subfolders) AdoptChild(folder, handle, name, walk);
  if (walk.isReplaced) {
    MarkFolder(folder, kLost | kGained | kReplaced);
  } else if (folder.born == epoch_ && isDelivering_) {
    // The callback may have seen other entries in it.
    MarkFolder(folder, kLost | kGained);
  } else if (folder.born == epoch_ && !listing.isEmpty) {
    MarkFolder(folder, kGained);
  }
}

void WatchTable::DetachUnlisted(Folder& folder, std::vector<std::string>& listed) {
  if (folder.children.empty()) return;
  std::sort(listed.begin(), listed.end());
  std::vector<Folder*> unlisted;
  for (const std::unique_ptr<Folder>& child : folder.children) {
    if (!std::binary_search(listed.begin(), listed.end(), child->name)) {
      unlisted.push_back(child.get());
    }
  }
  for (Folder* child : unlisted) Detach(*child);
}

void WatchTable::AdoptChild(Folder& folder, const Descriptor& handle, const std::string& name,
                            const Walk& walk) {
  Walk below = walk;
  below.depth = walk.depth + 1;
  below.length = walk.length + 1 + name.size();
  if (isTooLong(below.length)) return;
  Descriptor child = handle.isOpen() ? openFolder(handle.number(), name)
                                     : openFolder(AT_FDCWD, join(PathOf(folder), name));
  if (child.isOpen()) {
    Adopt(folder, name, std::move(child), below);
  } else {
    Missing(folder, name, errno);
  }
}

// A walk can take long; the kernel's queue must not fill meanwhile.
void WatchTable::ReadDuringWalk() {
  if (++walked_ % kFoldersPerRead != 0) return;
  if (unread_.size() >= kMostUnread) {
    unread_.clear();
    isOverflown_ = needsRepair_ = true;
  }
  inotify_.Read(unread_, kMostUnread);
}

WatchTable::Folder* WatchTable::ChildOf(const Folder& parent, std::string_view name) const {
  const auto found = parent.children.find(name);
  return found == parent.children.end() ? nullptr : found->get();
}

WatchTable::Folder& WatchTable::Enter(Folder& parent, const std::string& name, int watch,
                                      const Descriptor& handle) {
  auto entered = std::make_unique<Folder>();
  Folder& folder = *entered;
  folder.serial = ++serials_;
  folder.born = epoch_;
  Attach(std::move(entered), parent, name);
  fresh_.insert(&folder);
  SetWatch(folder, watch);
  if (watch < 0 && handle.isOpen()) {
    unwatched_[folder.serial] = {&folder, identityOf(handle), fingerprintOf(handle)};
  }
  return folder;
}

// Takes the folder, with all below it, from its place.
std::unique_ptr<WatchTable::Folder> WatchTable::Extract(Folder& folder) {
  std::unique_ptr<Folder> extracted;
  if (folder.parent == nullptr) {
    const auto found = orphans_.find(&folder);
    extracted = std::move(found->second);
    orphans_.erase(found);
    return extracted;
  }
  if (folder.born != epoch_) {
    origins_.try_emplace(&folder, Origin{folder.parent->serial, folder.name, epoch_});
  }
  NoteDeparture(*folder.parent, folder.name, folder.serial);
  Children& siblings = folder.parent->children;
  extracted = std::move(siblings.extract(siblings.find(std::string_view(folder.name))).value());
  folder.parent = nullptr;
  return extracted;
}

void WatchTable::Attach(std::unique_ptr<Folder> extracted, Folder& parent,
                        const std::string& name) {
  Folder& folder = *extracted;
  folder.parent = &parent;
  folder.name = name;
  const auto origin = origins_.find(&folder);
  if (origin != origins_.end() && origin->second.parent == parent.serial &&
      origin->second.name == name) {
    origins_.erase(origin);
  }
  parent.children.insert(std::move(extracted));
  if (IsRecent(folder.touched)) Touch(parent);
}

void WatchTable::Detach(Folder& folder) {
  std::unique_ptr<Folder> extracted = Extract(folder);
  orphans_.emplace(&folder, std::move(extracted));
}

// `serial` is that of the folder that left the name, or 0 when it is not known.
void WatchTable::NoteDeparture(const Folder& parent, const std::string& name, uint64_t serial) {
  if (departures_.size() >= kMostDepartures) {
    departures_.clear();
    manyDepartures_ = epoch_;
  }
  const auto [at, isFirst] = departures_.try_emplace({parent.serial, name});
  const bool isAlone = isFirst || at->second.serial == serial;
  at->second = {isAlone ? serial : 0, epoch_};
}

// Whether another folder than `by` has had this path lately, so that the reader may know that one.
bool WatchTable::WasTaken(const Folder& parent, const std::string& name, const Folder* by) const {
  if (IsRecent(manyDepartures_)) return true;
  const auto found = departures_.find({parent.serial, name});
  if (found == departures_.end() || !IsRecent(found->second.epoch)) return false;
  return by == nullptr || found->second.serial != by->serial;
}

void WatchTable::NameRoot() {
  if (root_ != nullptr) MarkFolder(*root_, kWritten);
}

// Drops the watches of the folder and all below it, and every mention of them.
void WatchTable::Bury(Folder& folder) {
  for (const std::unique_ptr<Folder>& child : folder.children) Bury(*child);
  const int watch = folder.watch;
  if (UnsetWatch(folder) && watch >= 0) inotify_.Remove(watch);
  marked_.erase(&folder);
  for (auto* folders : {&named_, &unsettled_, &fresh_, &moved_, &announced_, &relocated_}) {
    folders->erase(&folder);
  }
  unwatched_.erase(folder.serial);
  origins_.erase(&folder);
}

WatchTable::Folder* WatchTable::FindByWatch(int watch) const {
  const auto found = byWatch_.find(watch);
  return found == byWatch_.end() ? nullptr : found->second;
}

void WatchTable::SetWatch(Folder& folder, int watch) {
  folder.watch = watch;
  if (watch < 0) {
    unwatched_[folder.serial].folder = &folder;
    return;
  }
  unwatched_.erase(folder.serial);
  Folder*& first = byWatch_[watch];
  folder.twin = first;
  first = &folder;
}

// Whether nobody holds the watch any more.
bool WatchTable::UnsetWatch(Folder& folder) {
  const auto found = byWatch_.find(std::exchange(folder.watch, -1));
  if (found == byWatch_.end()) return true;
  Folder** at = &found->second;
  while (*at != &folder) at = &(*at)->twin;
  *at = std::exchange(folder.twin, nullptr);
  if (found->second != nullptr) return false;
  byWatch_.erase(found);
  return true;
}

void WatchTable::MarkFolder(Folder& folder, uint8_t marks) {
  if (marks == 0) return;
  folder.marks |= marks;
  if ((marks & kReplaced) != 0) folder.replaced = epoch_;
  marked_.insert(&folder);
}

void WatchTable::MarkAll(Folder& folder, uint8_t marks) {
  MarkFolder(folder, marks);
  for (const std::unique_ptr<Folder>& child : folder.children) MarkAll(*child, marks);
}

void WatchTable::Touch(Folder& folder) {
  for (Folder* at = &folder; at != nullptr && at->touched != epoch_; at = at->parent) {
    at->touched = epoch_;
  }
}

bool WatchTable::IsInTree(const Folder& folder) const {
  const Folder* top = &folder;
  while (top->parent != nullptr) top = top->parent;
  return top == root_.get();
}

// Whether the folder or one above it has moved since the last batch. The callback takes what it
// knows of a moved folder to the new place, and compares it there only afterwards. Where it knows
// another folder of that path, though, it takes nothing along.
bool WatchTable::IsHeldBack(const Folder& folder) const {
  if (origins_.empty()) return false;
  for (const Folder* at = &folder; at != nullptr; at = at->parent) {
    if ((at->marks & kReplaced) == 0 && origins_.contains(at)) return true;
  }
  return false;
}

bool WatchTable::IsReadable(const Folder& folder) const {
  for (const Folder* at = &folder; at != nullptr; at = at->parent) {
    if (at->isUnreadable) return false;
  }
  return true;
}

// How much longer than the folder's own path the longest of those below it is.
size_t WatchTable::LongestBelow(const Folder& folder) const {
  size_t longest = 0;
  for (const std::unique_ptr<Folder>& child : folder.children) {
    longest = std::max(longest, 1 + child->name.size() + LongestBelow(*child));
  }
  return longest;
}

std::string WatchTable::PathOf(const Folder& folder) const {
  return folder.parent == nullptr ? folder.name : join(PathOf(*folder.parent), folder.name);
}

// The moves that this batch tells are told. Where one of the two folders that tell a move is held
// back, so is what changed in the folder that moved, for some batches at most: folders can move in
// a ring.
void WatchTable::ForgetOrigins() {
  std::unordered_set<uint64_t> heldBack;
  for (const Folder* folder : marked_) heldBack.insert(folder->serial);
  std::erase_if(origins_, [&](const auto& entry) {
    const auto& [folder, origin] = entry;
    if (origin.epoch + kMostHeldBack <= epoch_) return true;
    return !heldBack.contains(origin.parent) &&
           (folder->parent == nullptr || !heldBack.contains(folder->parent->serial));
  });
}

void WatchTable::EndDelivery() {
  isDelivering_ = false;
  arrivals_.clear();
  // A comparison tells one side. Where the folder changed before it was done, that may have been
  // the wrong one.
  for (Folder* folder : marked_) {
    const bool isCompared = haveFoldersMoved_ || named_.contains(folder);
    if (isCompared && (folder->marks & (kLost | kGained)) != 0) folder->marks |= kLost | kGained;
  }
  if (haveFoldersMoved_) {
    named_.merge(announced_);
    named_.merge(relocated_);
    if (isTreeNamed_ && root_ != nullptr) named_.insert(root_.get());
    for (Folder* folder : named_) {
      if (IsDisturbed(*folder) || folder == root_.get()) Unsettle(*folder);
    }
  }
  disturbed_.clear();
  named_.clear();
  announced_.clear();
  relocated_.clear();
  isTreeNamed_ = false;
}

// Whether the callback may have found another folder under the path.
bool WatchTable::IsDisturbed(Folder& folder) const {
  if (disturbed_.size() >= kMostDepartures) return true;
  for (Folder* at = &folder; at->parent != nullptr; at = at->parent) {
    if (moved_.contains(at) || disturbed_.contains({at->parent->serial, at->name})) return true;
  }
  return false;
}

void WatchTable::Unsettle(Folder& folder) {
  unsettled_.insert(&folder);
  for (const std::unique_ptr<Folder>& child : folder.children) Unsettle(*child);
}

std::vector<NamedFolder> WatchTable::Cut() {
  for (auto& [top, orphan] : std::exchange(orphans_, {})) Bury(*orphan);

  const FSEventStreamEventFlags flags =
      isOverflown_ ? kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagKernelDropped
                   : kFSEventStreamEventFlagNone;
  if (!std::exchange(haveFoldersMoved_, false)) {
    for (Folder* folder : std::exchange(unsettled_, {})) MarkFolder(*folder, kLost | kGained);
  }
  named_.clear();
  announced_ = std::exchange(fresh_, {});
  relocated_ = std::exchange(moved_, {});
  isTreeNamed_ = false;
  std::vector<Mention> gaining;
  std::vector<Mention> others;
  std::unordered_set<Folder*> heldBack;
  for (Folder* folder : marked_) {
    if (IsHeldBack(*folder)) heldBack.insert(folder);
  }
  for (Folder* folder : marked_) {
    if (heldBack.contains(folder)) continue;
    const uint8_t marks = std::exchange(folder->marks, 0);
    if (!IsReadable(*folder)) continue;  // named, with all below it, when it can be read again
    named_.insert(folder);
    const bool isTwice = (marks & kLost) != 0 && (marks & kGained) != 0;
    ((marks & kGained) != 0 ? gaining : others).push_back({join(PathOf(*folder), ""), isTwice});
  }
  marked_ = std::move(heldBack);
  isOverflown_ = false;
  ForgetOrigins();
  std::erase_if(departures_,
                [&](const auto& departure) { return !IsRecent(departure.second.epoch); });
  ++epoch_;
  return inBatchOrder(gaining, others, flags);
}
