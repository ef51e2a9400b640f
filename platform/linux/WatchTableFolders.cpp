// The table of watched folders against the disk: what is under a name, which known folder that
// is, and the walk over what is not known yet.

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "FileStatus.h"
#include "WatchTable.h"

namespace {

constexpr int kFoldersPerRead = 64;  // of a walk

// A folder must be nameable with its final "/".
bool isTooLong(size_t length) { return length + 2 > PATH_MAX; }

// The longest path of a folder whose entries can all be named.
constexpr size_t kSafeLength = PATH_MAX - NAME_MAX - 2;

}  // namespace

// Looks what the name in the folder is now. The path may be out of date when the folder has moved
// and the event of that is still to come: `touched` sees to it that the folder is listed again
// then.
void WatchTable::Examine(Folder& parent, const std::string& name, Walk walk) {
  Touch(parent);
  if (!IsInTree(parent)) return;
  const std::string path = Join(PathOf(parent), name);
  if (isTooLong(path.size())) return;
  OpenFolder handle(path);
  if (handle.isOpen()) {
    walk.length = path.size();
    Adopt(parent, name, std::move(handle), walk);
  } else {
    Missing(parent, name, handle.failure());
  }
}

void WatchTable::EnterScanned(const std::string& path, const OpenFolder& folder) {
  ReadDuringWalk();
  if (root_ == nullptr || isTooLong(path.size())) return;
  const Place place = PlaceOf(BelowRoot(path));
  if (place.parent == nullptr) return;
  if (!folder.isOpen()) {
    Missing(*place.parent, place.name, folder.failure());
    return;
  }
  if (path.size() > kSafeLength) haveLongPaths_ = true;
  const int watch = inotify_.Add(folder);
  Folder* const known = ChildOf(*place.parent, place.name);
  if (known != nullptr && watch >= 0 && known->watch == watch) return;
  if (known != nullptr) Detach(*known);
  if (Relocate(watch, *place.parent, place.name, folder) == nullptr) {
    Enter(*place.parent, place.name, watch, folder);
  }
}

// The path relative to the root, of a folder below it. REQUIRES: there is a root.
std::string WatchTable::BelowRoot(const std::string& path) const {
  return path.substr(Join(root_->name, "").size());
}

// No parent when that is not known. The path is relative to the root.
WatchTable::Place WatchTable::PlaceOf(const std::string& path) const {
  Folder* parent = root_.get();
  size_t start = 0;
  for (size_t end; parent != nullptr && (end = path.find('/', start)) != std::string::npos;
       start = end + 1) {
    parent = ChildOf(*parent, path.substr(start, end - start));
  }
  return {parent, path.substr(start)};
}

bool WatchTable::ExamineMount(const std::string& path, const std::string& what) {
  const auto noted = mounts_.find(what);
  const Place before = noted != mounts_.end() ? noted->second : Place();
  bool isKnown = false;
  for (const Place& place : {before, PlaceOf(path)}) {
    if (place.parent == nullptr) continue;
    isKnown = true;
    MarkFolder(*place.parent, kLost | kGained);  // the name is another folder's or file's now
    // It may be the known folder again, whose events were examined while another covered it.
    Examine(*place.parent, place.name, Walk{.isRelocated = true});
  }
  return isKnown;
}

void WatchTable::NoteMount(const std::string& path, const std::string& what) {
  const Place place = PlaceOf(path);
  if (place.parent != nullptr) mounts_[what] = place;
}

void WatchTable::Adopt(Folder& parent, const std::string& name, OpenFolder handle, Walk walk) {
  if (walk.length > kSafeLength) haveLongPaths_ = true;
  const int watch = inotify_.Add(handle);
  Folder* folder = ChildOf(parent, name);
  if (folder != nullptr && watch >= 0 && folder->watch == watch) {
    if (!NeedsListing(*folder, walk)) return;
  } else if (folder != nullptr && IsUnwatched(*folder, watch, handle)) {
    if (!UpdateUnwatched(*folder, handle, watch) && !NeedsListing(*folder, walk)) return;
  } else {
    if (folder != nullptr) Detach(*folder);
    folder = Relocate(watch, parent, name, handle);
    walk.isReplaced = walk.isReplaced || IsRecent(parent.replaced) ||
                      WasTaken(parent, name, folder) ||
                      (delivery_.IsRunning() && parent.born == epoch_);
    walk.isRelocated = folder != nullptr;
    if (folder != nullptr &&
        (haveLongPaths_ || walk.length + LongestBelow(*folder) > kSafeLength)) {
      // Other entries than before can be named.
      walk.isRepair = true;
      MarkAll(*folder, kLost | kGained);
    }
    if (folder == nullptr) {
      const bool isSecondPath = watch >= 0 && FindByWatch(watch) != nullptr;
      folder = &Enter(parent, name, watch, handle);
      // The callback may know other contents of it: from the other path, from what was here before,
      // or, below a new folder, from where it was before it came here unseen.
      if (isSecondPath || !walk.isNew) {
        MarkFolder(*folder, kLost | kGained);
      } else if (walk.depth > 0) {
        MarkFolder(*folder, kGained);
      }
    } else if (!NeedsListing(*folder, walk)) {
      return;
    }
  }
  walk.isNew = walk.isNew && folder->born == epoch_;
  if (std::exchange(folder->isUnreadable, false)) walk.isReplaced = true;
  if (folder->isUnlisted) walk.isRepair = true;
  List(*folder, std::move(handle), walk);
}

// Whether a folder whose watch never lapsed is to be listed all the same.
bool WatchTable::NeedsListing(const Folder& folder, const Walk& walk) const {
  return walk.isRepair || walk.isReplaced || folder.isUnreadable || folder.isUnlisted ||
         (walk.isRelocated && (IsRecent(folder.touched) || IsRecent(repaired_)));
}

// Takes the folder that has the watch to a new place, from among the orphans or from a path that it
// has left. Null when there is none, or when it is a second path to a folder that is still where it
// was.
WatchTable::Folder* WatchTable::Relocate(int watch, Folder& parent, const std::string& name,
                                         const OpenFolder& handle) {
  Folder* folder = watch >= 0 ? FindByWatch(watch) : FindUnwatched(identityOf(handle));
  std::optional<FolderListing> listing;
  while (folder != nullptr && !CanMove(*folder, parent, handle, listing)) folder = folder->twin;
  if (folder == nullptr) return nullptr;
  if (IsInTree(*folder)) {
    robbed_.insert(folder->parent);
    Detach(*folder);
  }
  Attach(Extract(*folder), parent, name);
  moved_.insert(folder);
  // The reader may know other contents of it, from another of its paths.
  const Folder* const first = FindByWatch(folder->watch);
  if (first != nullptr && first->twin != nullptr) MarkAll(*folder, kLost | kGained);
  return folder;
}

// Whether the known folder can be the open one in the parent, and so is not where it was.
// `listing` is of the parent, made when it is needed: a folder may have very many twins.
bool WatchTable::CanMove(const Folder& folder, const Folder& parent, const OpenFolder& handle,
                         std::optional<FolderListing>& listing) const {
  if (&folder == root_.get()) return false;
  for (const Folder* above = &parent; above != nullptr; above = above->parent) {
    if (above == &folder) return false;
  }
  if (!IsInTree(folder)) return true;
  const OpenFolder there(PathOf(folder));
  if (!there.isOpen() || !isSameFolder(there, handle)) return true;
  // Where the file system does not distinguish capital letters from small ones, it has been opened
  // by the name that it had.
  if (folder.parent != &parent) return false;
  if (!listing) {
    const OpenFolder above(PathOf(parent));
    listing = above.isOpen() ? listFolder(above) : FolderListing{{}, true, false};
    std::ranges::sort(listing->subfolders);
  }
  return listing->isWhole && !std::ranges::binary_search(listing->subfolders, folder.name);
}

// A folder that was taken from another because a path led to it may have been there all the time:
// the path led elsewhere.
void WatchTable::ListRobbed() {
  for (Folder* folder : std::exchange(robbed_, {})) {
    if (!IsInTree(*folder)) continue;
    const std::string path = PathOf(*folder);
    OpenFolder handle(path, folder == root_.get());
    if (!handle.isOpen()) continue;
    if (ProbeWatch(handle) == folder->watch) {
      List(*folder, std::move(handle), Walk{.length = path.size()});
    }
  }
}

// Enters what the folder holds. A folder is closed before those below it are opened only where the
// tree is so deep that the handles might run out.
void WatchTable::List(Folder& folder, OpenFolder handle, const Walk& walk) {
  ReadDuringWalk();
  FolderListing listing = listFolder(handle);
  if (listing.isWhole) {
    DetachUnlisted(folder, listing.subfolders);
    if (std::exchange(folder.isUnlisted, false)) MarkFolder(folder, kLost | kGained);
    unopened_.Remove(&folder);
  } else {
    RetryLater(folder, true);
  }
  if (walk.depth >= kMostOpen) handle.Close();
  for (const std::string& name : listing.subfolders) AdoptChild(folder, handle, name, walk);
  if (walk.isReplaced) {
    MarkFolder(folder, kLost | kGained | kReplaced);
  } else if (folder.born == epoch_ && delivery_.IsRunning()) {
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
  for (const auto& child : folder.children) {
    if (!std::binary_search(listed.begin(), listed.end(), child->name)) {
      unlisted.push_back(child.get());
    }
  }
  for (Folder* child : unlisted) Detach(*child);
}

void WatchTable::AdoptChild(Folder& folder, const OpenFolder& handle, const std::string& name,
                            const Walk& walk) {
  Walk below = walk;
  below.depth = walk.depth + 1;
  below.length = walk.length + 1 + name.size();
  if (isTooLong(below.length)) {
    if (Folder* const known = ChildOf(folder, name)) Detach(*known);
    return;
  }
  OpenFolder child =
      handle.isOpen() ? OpenFolder(handle, name) : OpenFolder(Join(PathOf(folder), name));
  if (child.isOpen()) {
    Adopt(folder, name, std::move(child), below);
  } else {
    Missing(folder, name, child.failure());
  }
}

// A walk can take long; the kernel's queue must not fill meanwhile.
void WatchTable::ReadDuringWalk() {
  if (++walked_ % kFoldersPerRead != 0) return;
  if (unread_.size() >= mostUnread_) {
    unread_.clear();
    isOverflown_ = needsRepair_ = true;
  }
  inotify_.Read(unread_);
}

WatchTable::Folder* WatchTable::ChildOf(const Folder& parent, std::string_view name) const {
  const auto found = parent.children.find(name);
  return found == parent.children.end() ? nullptr : found->get();
}

WatchTable::Folder& WatchTable::Enter(Folder& parent, const std::string& name, int watch,
                                      const OpenFolder& handle) {
  auto entered = std::make_unique<Folder>();
  Folder& folder = *entered;
  folder.serial = ++serials_;
  folder.born = epoch_;
  Attach(std::move(entered), parent, name);
  fresh_.insert(&folder);
  SetWatch(folder, watch);
  if (watch < 0 && handle.isOpen()) {
    unwatched_[folder.serial] = {&folder, identityOf(handle), fingerprintOf(handle)};
    toVisit_.insert(folder.serial);
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
  const auto unwatched = unwatched_.find(folder.parent->serial);
  if (unwatched != unwatched_.end()) unwatched->second.fingerprint = 0;  // it may come back unseen
  auto& siblings = folder.parent->children;
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
  if (departures_.size() >= kMostNames) {
    departures_.clear();
    manyDepartures_ = epoch_;
  }
  const auto [at, isFirst] = departures_.try_emplace({parent.serial, name});
  const bool isAlone = isFirst || at->second.serial == serial;
  at->second = {isAlone ? serial : 0, epoch_};
}

// Whether another folder than `by` has had this path since the batch before the last, so that the
// callback may know that one.
bool WatchTable::WasTaken(const Folder& parent, const std::string& name, const Folder* by) const {
  if (IsRecent(manyDepartures_)) return true;
  const auto found = departures_.find({parent.serial, name});
  if (found == departures_.end() || !IsRecent(found->second.epoch)) return false;
  return by == nullptr || found->second.serial != by->serial;
}

// Drops an orphan that cannot be found again, because it has no watch any more. What is below it
// can. While a callback runs, no batch is cut that would drop it.
void WatchTable::DropOrphan(Folder& top) {
  while (!top.children.empty()) Detach(**top.children.begin());
  const auto dropped = orphans_.extract(&top);
  Bury(top);
}

// Drops the watches of the folder and all below it, and every mention of them.
void WatchTable::Bury(Folder& folder) {
  for (const auto& child : folder.children) Bury(*child);
  const int watch = folder.watch;
  if (UnsetWatch(folder) && watch >= 0) inotify_.Remove(watch);
  ForgetNames(folder);
  for (KnownFolders* folders : {&marked_, &robbed_, &fresh_, &moved_}) folders->erase(&folder);
  delivery_.Forget(folder);
  unwatched_.erase(folder.serial);
  toVisit_.erase(folder.serial);
  unopened_.Remove(&folder);
  inVain_.erase(&folder);
  origins_.erase(&folder);
  std::erase_if(mounts_, [&](const auto& mount) { return mount.second.parent == &folder; });
}

// The watch of the open folder; when it has none, that of no folder.
int WatchTable::ProbeWatch(const OpenFolder& handle) {
  const int watch = inotify_.Add(handle);
  if (watch >= 0 && FindByWatch(watch) == nullptr) inotify_.Remove(watch);
  return watch;
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
  toVisit_.erase(folder.serial);
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

// How much longer than the folder's own path the longest of those below it is.
size_t WatchTable::LongestBelow(const Folder& folder) const {
  size_t longest = 0;
  for (const auto& child : folder.children) {
    longest = std::max(longest, 1 + child->name.size() + LongestBelow(*child));
  }
  return longest;
}
