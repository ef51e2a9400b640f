#include "WatchTable.h"

#include <algorithm>

namespace {

constexpr size_t kMostOfOne = 8192;         // names of one folder's entries that are kept,
constexpr size_t kMostNamesKept = 1 << 15;  // and of all folders' together, repeated ones included

constexpr int kMostPortions = 3;  // what a walk has read, the queue, what came meanwhile

constexpr uint32_t kMostHeldBack = 3;  // batches
constexpr int kMostLooks = 3;          // for a folder that was not there

std::string withFinalSlash(std::string path) { return path == "/" ? path : std::move(path += '/'); }

// One folder to name, once or twice in a row.
struct Naming {
  std::string path;
  bool isTwice;
  std::shared_ptr<const EntryNames> names;
};

// Parents come before children when paths sort by bytes, because every path ends with "/".
void appendSorted(std::vector<Naming>& namings, FSEventStreamEventFlags flags,
                  std::vector<NamedFolder>& batch) {
  std::sort(namings.begin(), namings.end(),
            [](const Naming& a, const Naming& b) { return a.path < b.path; });
  for (Naming& naming : namings) {
    if (naming.isTwice) batch.push_back({naming.path, flags, naming.names});
    batch.push_back({std::move(naming.path), flags, std::move(naming.names)});
  }
}

// The callback is to meet the folders that gained entries first. It goes from the last event to the
// first.
std::vector<NamedFolder> inBatchOrder(std::vector<Naming>& gaining, std::vector<Naming>& others,
                                      FSEventStreamEventFlags flags) {
  std::vector<NamedFolder> batch;
  appendSorted(gaining, flags, batch);
  appendSorted(others, flags, batch);
  std::reverse(batch.begin(), batch.end());
  return batch;
}

}  // namespace

void WatchTable::WatchRoot(const std::string& path, OpenFolder folder) {
  EnterRoot(path, folder);
  List(*root_, std::move(folder), Walk{.length = path.size()});
  for (Folder* marked : marked_) marked->marks = 0;
  marked_.clear();
  delivery_.NoteTree();
  EndEntering();
}

void WatchTable::EnterRoot(const std::string& path, const OpenFolder& folder) {
  Clear();
  root_ = std::make_unique<Folder>();
  root_->name = path;
  root_->serial = ++serials_;
  root_->born = epoch_;
  SetWatch(*root_, inotify_.Add(folder));
  if (root_->watch >= 0) return;
  unwatched_[root_->serial] = {root_.get(), identityOf(folder), fingerprintOf(folder)};
  toVisit_.insert(root_->serial);
}

void WatchTable::EndEntering() {
  fresh_.clear();
  ++epoch_;
  mostUnread_ = kMostUnread;
}

void WatchTable::Clear() {
  for (auto& [top, orphan] : std::exchange(orphans_, {})) Bury(*orphan);
  if (root_ != nullptr) Bury(*root_);
  root_.reset();
  departures_.clear();
  haveLongPaths_ = false;
  isOverflown_ = needsRepair_ = endsInMove_ = false;
  unread_.clear();
}

bool WatchTable::ProbeRoot(const OpenFolder& folder) {
  if (root_ == nullptr) return false;
  if (root_->watch >= 0) return ProbeWatch(folder) == root_->watch;
  const auto known = unwatched_.find(root_->serial);  // unless its watch is gone
  return known != unwatched_.end() && known->second.identity == identityOf(folder);
}

void WatchTable::NoteRoot(OpenFolder folder, bool wasAstray) {
  if (root_ == nullptr) return;
  if (!folder.isOpen()) {
    root_->isUnreadable = true;
  } else if (std::exchange(root_->isUnreadable, false)) {
    List(*root_, std::move(folder), Walk{.isReplaced = true, .length = root_->name.size()});
  } else if (wasAstray || root_->isUnlisted) {
    List(*root_, std::move(folder), Walk{.isRepair = true, .length = root_->name.size()});
  }
}

// What comes meanwhile is left to the next call: where folders come and go without end, no batch
// would be cut otherwise.
void WatchTable::Read() {
  for (int i = 0; i < kMostPortions; ++i) {
    std::string events = std::exchange(unread_, {});
    if (events.empty() && !inotify_.Read(events)) break;
    for (std::string_view rest = events; const std::optional<Event> event = takeEvent(rest);) {
      ApplyEvent(*event);
    }
  }
  if (std::exchange(needsRepair_, false)) Repair();
}

void WatchTable::ApplyEvent(const Event& event) {
  endsInMove_ = event.kind == Event::Kind::movedAway;
  switch (event.kind) {
    case Event::Kind::overflow:
      isOverflown_ = needsRepair_ = true;
      return;
    case Event::Kind::watchGone:
      LoseWatch(event.watch, 0);
      return;
    case Event::Kind::unmounted:
      // Unlike a deletion, it sends no event to the folder above.
      LoseWatch(event.watch, kWritten);
      return;
    default:
      break;
  }
  Folder* const first = FindByWatch(event.watch);
  if (first == nullptr || event.name.empty()) return;
  // Adopting may change which folders share the watch.
  std::vector<Folder*> twins;
  for (Folder* twin = first->twin; twin != nullptr; twin = twin->twin) twins.push_back(twin);
  ApplyTo(*first, event);
  for (Folder* twin : twins) ApplyTo(*twin, event);
}

void WatchTable::ApplyTo(Folder& folder, const Event& event) {
  MarkEntry(folder, event.HasGone() ? kLost : event.HasCome() ? kGained : kWritten, event.name);
  const bool isKnown = ChildOf(folder, event.name) != nullptr;
  if (!event.isFolder && !isKnown) return;
  const std::string name(event.name);
  if (event.isFolder && event.HasMoved()) {
    haveFoldersMoved_ = true;
    delivery_.NoteMove(folder, name);
  }
  if (!isKnown && event.HasGone()) {
    // Whatever has taken the name since then has an event of its own.
    NoteDeparture(folder, name, 0);
    Touch(folder);
  } else if (event.kind != Event::Kind::written) {
    Examine(folder, name, Walk{.isNew = event.kind == Event::Kind::created});
  }
  if (!event.isFolder) return;
  NoteInVain(folder, name, event.HasCome());
  if (event.kind == Event::Kind::movedHere) NoteComer(folder, name);
  if (event.HasCome() && delivery_.NoteArrival(folder, name)) {
    if (Folder* const child = ChildOf(folder, name)) MarkAll(*child, kLost | kGained | kReplaced);
  }
}

// The folder came, and is not there though it has not been reported to have gone: its path possibly
// led elsewhere, because something covered it or a folder above it was away for a moment.
void WatchTable::NoteInVain(Folder& parent, const std::string& name, bool hasCome) {
  if (hasCome && ChildOf(parent, name) == nullptr) {
    inVain_[&parent][name] = 0;
  } else if (const auto found = inVain_.find(&parent); found != inVain_.end()) {
    found->second.erase(name);
    if (found->second.empty()) inVain_.erase(found);
  }
}

void WatchTable::LookAgain() {
  for (const auto& [parent, names] : std::exchange(inVain_, {})) {
    for (const auto& [name, looks] : names) {
      if (ChildOf(*parent, name) == nullptr) Examine(*parent, name, Walk{});
      const bool isThere = ChildOf(*parent, name) != nullptr;
      if (!isThere && looks < kMostLooks) inVain_[parent][name] = looks + 1;
    }
  }
}

// A folder that was moved here from outside the tree, or so it seems, may be one that the callback
// knows, of which nothing is left.
void WatchTable::NoteComer(const Folder& parent, const std::string& name) {
  Folder* const child = ChildOf(parent, name);
  if (child == nullptr || child->born != epoch_ || moved_.contains(child)) return;
  MarkAll(*child, kLost | kGained);
}

// The watch is gone: its folder was deleted, or its file system unmounted. Its path shows what is
// there now.
void WatchTable::LoseWatch(int watch, uint8_t marksAbove) {
  while (Folder* folder = FindByWatch(watch)) {
    UnsetWatch(*folder);
    if (folder == root_.get()) {
      watched_.DoubtNames();
      continue;
    }
    Folder* const parent = folder->parent;
    const std::string name = folder->name;
    if (parent != nullptr) Detach(*folder);
    DropOrphan(*folder);
    if (parent == nullptr) continue;
    MarkFolder(*parent, marksAbove);
    Examine(*parent, name, Walk{});
  }
}

// Events were lost, so the table may be wrong anywhere: walk the tree again. Cut names every folder
// then.
void WatchTable::Repair() {
  if (root_ == nullptr) return;
  repaired_ = epoch_;
  OpenFolder folder(root_->name, true);
  if (folder.isOpen() && ProbeRoot(folder)) {
    List(*root_, std::move(folder), Walk{.isRepair = true, .length = root_->name.size()});
    MarkAll(*root_, kLost | kGained);
  } else {
    watched_.DoubtNames();
    needsRepair_ = true;  // again, if it turns out to be there
  }
}

void WatchTable::NameAgain(const std::string& path) {
  if (root_ == nullptr) return;
  Folder* folder = root_.get();
  if (path != root_->name) {
    const Place place = PlaceOf(BelowRoot(path));
    folder = place.parent != nullptr ? ChildOf(*place.parent, place.name) : nullptr;
  }
  if (folder != nullptr) MarkFolder(*folder, kLost | kGained);
}

void WatchTable::NameRoot() {
  if (root_ != nullptr) MarkFolder(*root_, kWritten);
}

void WatchTable::MarkFolder(Folder& folder, uint8_t marks) {
  if (marks == 0) return;
  if ((marks & kReplaced) != 0) folder.replaced = epoch_;
  // Only what is in the set has marks.
  if (std::exchange(folder.marks, folder.marks | marks) == 0) marked_.insert(&folder);
  ForgetNames(folder);
}

void WatchTable::MarkEntry(Folder& folder, uint8_t marks, std::string_view name) {
  const Folder* const first = FindByWatch(folder.watch);
  const bool hasTwin = first == nullptr || first->twin != nullptr;
  if (hasTwin || (folder.marks != 0 && folder.names == nullptr)) {
    MarkFolder(folder, marks);
    return;
  }
  if (std::exchange(folder.marks, folder.marks | marks) == 0) {
    marked_.insert(&folder);
    folder.names = std::make_unique<EntryNames>();
  }
  EntryNames& names = *folder.names;
  namesKept_ -= names.count();
  names.Add(name);
  const bool isFull = names.count() > 2 * kMostOfOne;
  if (isFull) names.Compact();
  namesKept_ += names.count();
  if ((isFull && names.count() > kMostOfOne) || namesKept_ > kMostNamesKept) ForgetNames(folder);
}

void WatchTable::ForgetNames(Folder& folder) {
  if (folder.names == nullptr) return;
  namesKept_ -= folder.names->count();
  folder.names.reset();
}

std::shared_ptr<const EntryNames> WatchTable::TakeNames(Folder& folder) {
  if (folder.names == nullptr) return nullptr;
  namesKept_ -= folder.names->count();
  return std::exchange(folder.names, nullptr);
}

void WatchTable::MarkAll(Folder& folder, uint8_t marks) {
  MarkFolder(folder, marks);
  for (const auto& child : folder.children) MarkAll(*child, marks);
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

std::string WatchTable::Join(const std::string& folder, const std::string& name) {
  return folder == "/" ? folder + name : folder + "/" + name;
}

std::string WatchTable::PathOf(const Folder& folder) const {
  size_t size = 1;
  for (const Folder* at = &folder; at != nullptr; at = at->parent) size += 1 + at->name.size();
  std::string path;
  path.reserve(size);  // with a final "/"
  AppendPath(folder, path);
  return path;
}

void WatchTable::AppendPath(const Folder& folder, std::string& path) {
  if (folder.parent != nullptr) {
    AppendPath(*folder.parent, path);
    if (path != "/") path += '/';
  }
  path += folder.name;
}

// The moves that this batch reports need no origin. Where one of the two folders of a move is held
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
  // A comparison reports one side. Where the folder changed before it was done, that may have been
  // the wrong one.
  for (Folder* folder : marked_) {
    const bool isCompared = haveFoldersMoved_ || delivery_.HasNamed(*folder);
    if (isCompared && (folder->marks & (kLost | kGained)) != 0) folder->marks |= kLost | kGained;
  }
  delivery_.End(haveFoldersMoved_, moved_, root_.get());
}

std::vector<NamedFolder> WatchTable::Cut() {
  LookAgain();
  ListRobbed();
  for (auto& [top, orphan] : std::exchange(orphans_, {})) Bury(*orphan);

  const FSEventStreamEventFlags flags =
      isOverflown_ ? kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagKernelDropped
                   : kFSEventStreamEventFlagNone;
  if (!std::exchange(haveFoldersMoved_, false)) {
    for (Folder* folder : delivery_.TakeUnsettled()) MarkFolder(*folder, kLost | kGained);
  }
  KnownFolders named;
  std::vector<Naming> gaining;
  std::vector<Naming> others;
  KnownFolders heldBack;
  for (Folder* folder : marked_) {
    if (!IsHeldBack(*folder)) continue;
    heldBack.insert(folder);
    ForgetNames(*folder);
  }
  for (Folder* folder : marked_) {
    if (heldBack.contains(folder)) continue;
    const uint8_t marks = std::exchange(folder->marks, 0);
    std::shared_ptr<const EntryNames> names = TakeNames(*folder);
    if (!IsReadable(*folder)) continue;  // named, with all below it, when it can be read again
    named.insert(folder);
    const bool isTwice = (marks & kLost) != 0 && (marks & kGained) != 0;
    ((marks & kGained) != 0 ? gaining : others)
        .push_back({withFinalSlash(PathOf(*folder)), isTwice, std::move(names)});
  }
  marked_ = std::move(heldBack);
  fresh_.merge(std::exchange(moved_, {}));
  delivery_.NoteCut(std::move(named), std::exchange(fresh_, {}));
  isOverflown_ = false;
  ForgetOrigins();
  std::erase_if(departures_,
                [&](const auto& departure) { return !IsRecent(departure.second.epoch); });
  ++epoch_;
  return inBatchOrder(gaining, others, flags);
}
