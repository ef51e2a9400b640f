#include "FSTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>

#include "FileStatus.h"
#include "utility.h"

namespace {

constexpr const char* kProhibitedSuffixes[] = {".tmp",
                                               ".temp",
                                               ".log",
                                               ".sys",
                                               ".---",
                                               ".###",
                                               ".$$$",
                                               ".cache",
                                               ".cache-2",
                                               ".cache-3",
                                               ".db",
                                               ".sqlite",
                                               ".sqlite3",
                                               ".db3",
                                               ".db-shm",
                                               ".db-wal",
                                               ".db$",
                                               ".db3-journal",
                                               ".download",
                                               ".downloaddownload",
                                               ".indexArrays",
                                               ".indexCompactDirectory",
                                               ".indexDirectory",
                                               ".indexPositions",
                                               ".indexPositionTable",
                                               ".sqlite3-journal",
                                               ".TemporaryItems",
                                               ".tmt"};

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};
using OpenFolder = std::unique_ptr<DIR, CloseFolder>;

// Opens the folder for listing; null with errno set when that fails. A link that has taken a
// folder's place must not lead out of the tree, but the watched folder itself may be one.
OpenFolder openFolder(const std::string& path, bool followLink) {
  const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK | (followLink ? 0 : O_NOFOLLOW);
  const int descriptor = open(path.c_str(), flags);
  if (descriptor < 0) return nullptr;
  OpenFolder folder(fdopendir(descriptor));
  if (folder == nullptr) {
    const int error = errno;
    close(descriptor);
    errno = error;
  }
  return folder;
}

bool isSkippedName(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 ||
         std::strcmp(name, ".DS_Store") == 0;
}

std::string entryPath(const std::string& folder, std::string_view name) {
  std::string path;
  path.reserve(folder.size() + 1 + name.size());
  path = folder;
  if (path != "/") path += '/';
  path += name;
  return path;
}

// The key of the folder that holds the path.
std::string_view parentOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

FSResourcePtr makeResource(const FileStatus& status, std::string path) {
  auto resource =
      std::make_shared<FSResource>(status.inode, std::move(path), status.isFolder, status.modified,
                                   status.created, status.size, std::string());
  resource->birth = status.birth;
  return resource;
}

FSResourcePtr asResource(const FSChangedResource& record) {
  auto resource = std::make_shared<FSResource>(record.inode, record.path, record.isFolder,
                                               record.modified, record.created, record.size, "");
  resource->birth = record.birth;
  return resource;
}

// Whether the list, indexed by inode, holds the file under any name.
bool holdsFile(const FSResourceList& list, const FSResourceIndex& byINode, const FSResource& file) {
  uint32_t at = byINode.FirstByINode(file.inode);
  while (at != FSResourceIndex::kNone && !isSameFile(*list[at], file)) at = byINode.NextByINode(at);
  return at != FSResourceIndex::kNone;
}

FSResourcePtr movedResource(const FSResource& resource, std::string path) {
  auto moved = std::make_shared<FSResource>(resource);
  moved->path = std::move(path);
  return moved;
}

template <typename MovePath>
FSResourceList moved(const FSResourceList& entries, MovePath movePath) {
  FSResourceList list;
  list.reserve(entries.size());
  for (const FSResourcePtr& entry : entries) {
    list.push_back(movedResource(*entry, movePath(entry->path)));
  }
  return list;
}

// The range of keys at and below a folder: the folder's own key, if any, and those that begin with
// it and "/". Keys sort by bytes, so those below stand together, but not always next to the
// folder's own.
template <typename Container, typename Visit>
void eachAtOrBelow(Container& container, const std::string& path, Visit visit) {
  const auto keyOf = [](const auto& element) -> const std::string& {
    if constexpr (requires { element.first; }) {
      return element.first;
    } else {
      return element;
    }
  };
  if (const auto own = container.find(path); own != container.end()) visit(own);
  const std::string below = path + "/";
  for (auto at = container.lower_bound(below);
       at != container.end() && keyOf(*at).starts_with(below);) {
    visit(at++);
  }
}

}  // namespace

struct FSTree::Scan {
  bool listSync;
  bool reportNew;
};

void FSTree::InitWithPath(const std::string& path, FSChangeEvents& queue, bool listAll) {
  rootPath = path;
  while (rootPath.size() > 1 && rootPath.ends_with('/')) rootPath.pop_back();
  changes = &queue;
  showAll = listAll;
  if (prohibitedSuffixes.empty()) {
    prohibitedSuffixes.assign(std::begin(kProhibitedSuffixes), std::end(kProhibitedSuffixes));
  }
  ClearSnapshot();
  BuildSnapshot();
}

void FSTree::ClearSnapshot() {
  const MutexLock lock(treeMutex);
  snapshot.clear();
  unread.clear();
  told_.clear();
}

void FSTree::BuildSnapshot() { DirSearch(rootPath, showAll, false); }

bool FSTree::isProhibited(std::string_view path) const {
  const size_t dot = path.rfind('.');
  if (dot == std::string_view::npos) return false;
  return std::find(prohibitedSuffixes.begin(), prohibitedSuffixes.end(), path.substr(dot)) !=
         prohibitedSuffixes.end();
}

FSResourcePtr FSTree::GetResource(const std::string& path) {
  const std::optional<FileStatus> status = readStatus(AT_FDCWD, path.c_str());
  return status ? makeResource(*status, path) : nullptr;
}

// Lists the folder's entries in listing order, leaving out what the tool ignores, what vanishes
// meanwhile and what lies so deep that no path leads to it. `error` gets the reason when the folder
// cannot be opened, 0 when it went while it was.
bool FSTree::ReadFolder(const std::string& path, FSResourceList& entries, int& error) const {
  const OpenFolder folder = openFolder(path, path == rootPath);
  error = folder == nullptr ? errno : 0;
  if (folder == nullptr || !readStatus(AT_FDCWD, path.c_str())) return false;
  while (const dirent* entry = readdir(folder.get())) {
    if (isSkippedName(entry->d_name)) continue;
    std::string entryAt = entryPath(path, entry->d_name);
    if (entryAt.size() >= PATH_MAX) continue;
    const std::optional<FileStatus> status = readStatus(dirfd(folder.get()), entry->d_name);
    if (!status) continue;
    if (!status->isFolder && isProhibited(entry->d_name)) continue;
    entries.push_back(makeResource(*status, std::move(entryAt)));
  }
  return true;
}

FSResourceArray FSTree::GetCurrentResourceList(const std::string& folder) const {
  FSResourceList entries;
  ReadCurrentList(folder.ends_with('/') ? KeyOf(folder) : folder, entries);
  return FSResourceArray(std::move(entries));
}

bool FSTree::ReadCurrentList(const std::string& key, FSResourceList& entries) const {
  int error = 0;
  return ReadFolder(key, entries, error);
}

FSResourceArray FSTree::GetSavedResourceList(const std::string& folderWithSlash) const {
  if (!folderWithSlash.ends_with('/')) return {};
  return GetSavedResourceList2(KeyOf(folderWithSlash));
}

FSResourceArray FSTree::GetSavedResourceList2(const std::string& folder) const {
  const FSResourceList* entries = SavedList(folder);
  return entries == nullptr ? FSResourceArray() : FSResourceArray(*entries);
}

void FSTree::DeleteSavedResourceList(const std::string& path, bool recursive) {
  {
    const MutexLock lock(treeMutex);
    if (const auto parent = snapshot.find(parentOf(path)); parent != snapshot.end()) {
      std::erase_if(parent->second,
                    [&](const FSResourcePtr& entry) { return entry->path == path; });
    }
  }
  if (recursive) TakeSavedLists(path);
}

void FSTree::AddDirResource(const std::string& folder, const FSResourcePtr& resource) {
  {
    const MutexLock lock(treeMutex);
    if (const auto found = snapshot.find(folder); found != snapshot.end()) {
      found->second.push_back(resource);
    }
  }
  if (resource->isFolder) AddFolder(resource->path);
}

void FSTree::UpdateDir(const std::string& folder, const FSResourceArray& entries) {
  const MutexLock lock(treeMutex);
  const auto found = snapshot.find(folder);
  if (found == snapshot.end()) return;
  FSResourceList copies;
  for (const FSResourcePtr& entry : entries.items)
    copies.push_back(movedResource(*entry, entry->path));
  found->second = std::move(copies);
}

void FSTree::DeleteDirResource(const std::string& folder, const FSResource& resource) {
  FSResourceArray kept;
  for (const FSResourcePtr& entry : GetSavedResourceList2(folder).items) {
    if (entry->path != resource.path) kept.Append(entry);
  }
  UpdateDir(folder, kept);
}

std::string FSTree::KeyOf(const std::string& folderWithSlash) {
  return folderWithSlash.size() == 1 ? folderWithSlash
                                     : folderWithSlash.substr(0, folderWithSlash.size() - 1);
}

const FSResourceList* FSTree::SavedList(std::string_view key) const {
  const auto found = snapshot.find(key);
  return found == snapshot.end() ? nullptr : &found->second;
}

bool FSTree::IsSavedFolder(const std::string& key) const {
  const FSResourceList* siblings = SavedList(parentOf(key));
  return siblings != nullptr &&
         std::any_of(siblings->begin(), siblings->end(), [&](const FSResourcePtr& entry) {
           return entry->isFolder && entry->path == key;
         });
}

void FSTree::SetSavedList(const std::string& key, FSResourceList entries) {
  const MutexLock lock(treeMutex);
  snapshot.insert_or_assign(key, std::move(entries));
}

void FSTree::AddFolder(const std::string& key) {
  const MutexLock lock(treeMutex);
  if (snapshot.try_emplace(key).second) unread.insert(key);
}

// Whether a record still to be handed on tells that what has this path is gone.
bool FSTree::IsDeparting(const std::string& path) const {
  const auto found = pending.find(path);
  return found != pending.end() && found->second.last == nullptr;
}

std::shared_ptr<FSSavedLists> FSTree::TakeSavedLists(const std::string& path) {
  const MutexLock lock(treeMutex);
  auto taken = std::make_shared<FSSavedLists>();
  taken->path = path;
  eachAtOrBelow(snapshot, path, [&](Snapshot::iterator at) {
    auto node = snapshot.extract(at);
    taken->lists.emplace_back(std::move(node.key()), std::move(node.mapped()));
  });
  eachAtOrBelow(unread, path, [&](auto at) {
    taken->unread.push_back(*at);
    unread.erase(at);
  });
  taken_[path] = taken;
  return taken;
}

FSResourceList FSTree::PutSavedLists(FSSavedLists& saved, const std::string& newPath) {
  const MutexLock lock(treeMutex);
  const auto movedPath = [&](const std::string& path) {
    return newPath + path.substr(saved.path.size());
  };
  FSResourceList replaced;
  std::map<std::string, FSSavedLists*> elsewhere;  // folders that do not stand here any more
  const auto elsewhereAbove = [&](const std::string& key) {
    return std::find_if(elsewhere.begin(), elsewhere.end(), [&](const auto& folder) {
      return (key + "/").starts_with(folder.first + "/");
    });
  };
  for (const auto& [oldKey, entries] : saved.lists) {
    const std::string key = movedPath(oldKey);
    if (const auto above = elsewhereAbove(key); above != elsewhere.end()) {
      if (above->second != nullptr)
        above->second->lists.emplace_back(key, moved(entries, movedPath));
      continue;
    }
    FSResourceList& list = snapshot[key];
    if (const auto told = told_.find(key); told != told_.end()) {
      const FSResourceList compared = list;
      const FSResourceIndex comparedByPath(compared, FSResourceIndex::Key::path);
      for (const Told& entry : told->second) {
        const std::string& path = entry.resource->path;
        if (comparedByPath.FirstByPath(path) == FSResourceIndex::kNone)
          list.push_back(entry.resource);
      }
      told_.erase(told);
    }
    const FSResourceList present = list;
    const FSResourceIndex presentByPath(present, FSResourceIndex::Key::path);
    for (const FSResourcePtr& entry : moved(entries, movedPath)) {
      const uint32_t at = presentByPath.FirstByPath(entry->path);
      if (at != FSResourceIndex::kNone) {
        if (!entry->isFolder || present[at]->isFolder) continue;
        elsewhere.emplace(entry->path, nullptr);
        replaced.push_back(entry);
      } else if (IsDeparting(entry->path)) {
        const auto taken = taken_.find(entry->path);
        elsewhere.emplace(entry->path, taken != taken_.end() ? taken->second.get() : nullptr);
      } else {
        list.push_back(entry);
      }
    }
    unread.erase(key);
  }
  saved.newPath = newPath;
  for (const std::string& oldKey : saved.unread) {
    const std::string key = movedPath(oldKey);
    const auto above = elsewhereAbove(key);
    if (above == elsewhere.end()) {
      if (snapshot.contains(key)) unread.insert(key);
    } else if (above->second != nullptr) {
      above->second->unread.push_back(key);
    }
  }
  return replaced;
}

void FSTree::ForgetReplaced(const std::string& path) {
  const MutexLock lock(treeMutex);
  std::vector<std::string> replaced;
  eachAtOrBelow(snapshot, path, [&](Snapshot::iterator at) {
    const bool isGone = at->first != path && !pending.contains(at->first);
    if (isGone) {
      replaced.push_back(at->first);
    } else {
      std::erase_if(at->second,
                    [&](const FSResourcePtr& entry) { return !pending.contains(entry->path); });
    }
  });
  for (const std::string& key : replaced) {
    snapshot.erase(key);
    unread.erase(key);
  }
}

void FSTree::NoteCompared(const std::string& key, const FSResourceList& entries) {
  std::vector<Told>& told = told_[key];
  FSResourceList before;
  for (const Told& entry : told) before.push_back(entry.resource);
  const FSResourceIndex beforeByPath(before, FSResourceIndex::Key::path);
  for (const FSResourcePtr& entry : entries) {
    const uint32_t at = beforeByPath.FirstByPath(entry->path);
    if (at == FSResourceIndex::kNone) {
      told.push_back({entry});
    } else {
      told[at].resource = entry;
    }
  }
}

void FSTree::NoteTold(const FSChangedResource& record) {
  if (told_.empty()) return;
  const std::string& gone = record.action == "rename" ? record.oldPath : record.path;
  const bool isGone = record.action == "delete" || record.action == "rename";
  if (record.isFolder && record.action == "rename") MoveTold(record.oldPath, record.path);
  const bool isReplaced =
      record.action == "create" && !record.isFolder && SavedList(record.path) != nullptr;
  if (isReplaced) TakeSavedLists(record.path);
  const std::string below = gone + "/";
  for (auto& [key, entries] : told_) {
    std::erase_if(entries, [&](const Told& entry) {
      const std::string& path = entry.resource->path;
      const bool isBelow = path.starts_with(below);
      return entry.isTold &&
             ((isGone && path == gone) || (((isGone && record.isFolder) || isReplaced) && isBelow));
    });
  }
  std::erase_if(told_, [](const auto& told) { return told.second.empty(); });
  const auto parent = told_.find(std::string(parentOf(record.path)));
  if (record.action == "delete" || parent == told_.end()) return;
  for (Told& entry : parent->second) {
    if (entry.resource->path == record.path) entry.isTold = true;
  }
}

// What has been told of a folder's contents is told of its new path.
void FSTree::MoveTold(const std::string& oldPath, const std::string& newPath) {
  const std::string below = oldPath + "/";
  std::vector<Told> moving;
  for (const auto& [key, entries] : told_) {
    for (const Told& entry : entries) {
      if (!entry.isTold || !entry.resource->path.starts_with(below)) continue;
      std::string path = newPath + entry.resource->path.substr(oldPath.size());
      moving.push_back({movedResource(*entry.resource, std::move(path)), true});
    }
  }
  for (Told& entry : moving) {
    told_[std::string(parentOf(entry.resource->path))].push_back(std::move(entry));
  }
}

std::vector<FSChangedResource> FSTree::TakeUntrue() {
  std::vector<FSChangedResource> untrue;
  std::unordered_map<std::string, std::vector<Told>> stillOpen;
  for (auto& [key, entries] : std::exchange(told_, {})) {
    const FSResourceList* saved = SavedList(key);
    const FSResourcePtr now = saved == nullptr ? GetResource(key) : nullptr;
    if (now != nullptr && now->isFolder) {
      stillOpen.emplace(key, std::move(entries));
      continue;
    }
    const FSResourceList none;
    const FSResourceIndex savedByPath(saved != nullptr ? *saved : none, FSResourceIndex::Key::path);
    for (const Told& entry : entries) {
      if (savedByPath.FirstByPath(entry.resource->path) != FSResourceIndex::kNone) continue;
      untrue.emplace_back("delete", *entry.resource);
      if (entry.resource->isFolder) untrue.back().saved = TakeSavedLists(entry.resource->path);
    }
  }
  told_ = std::move(stillOpen);
  return untrue;
}

void FSTree::NoteRead(const std::string& key, bool isRead) {
  const MutexLock lock(treeMutex);
  if (isRead) {
    unread.erase(key);
    return;
  }
  std::string place = key;
  if (FSSavedLists* const taken = FindPlace(place)) {
    taken->unread.push_back(place);
  } else if (snapshot.contains(place)) {
    unread.insert(place);
  }
}

bool FSTree::HandOnLists(const FSSavedLists& saved, std::string& path) {
  const MutexLock lock(treeMutex);
  FSSavedLists* const taken = FindPlace(path);
  if (taken == nullptr) return false;
  const auto movedPath = [&](const std::string& old) {
    return path + old.substr(saved.path.size());
  };
  for (const auto& [key, entries] : saved.lists) {
    taken->lists.emplace_back(movedPath(key), moved(entries, movedPath));
  }
  for (const std::string& key : saved.unread) taken->unread.push_back(movedPath(key));
  return true;
}

// Follows the key to where its list has gone in this callback. Returns the taken lists that it is
// among; null when it stands in the snapshot, or nowhere.
FSSavedLists* FSTree::FindPlace(std::string& key) const {
  for (size_t moves = 0; moves <= taken_.size() && !snapshot.contains(key); ++moves) {
    FSSavedLists* const taken = TakenAbove(key);
    if (taken == nullptr || taken->newPath.empty()) return taken;
    key = taken->newPath + key.substr(taken->path.size());
  }
  return nullptr;
}

// The lists that the folder's own would be among, or null.
FSSavedLists* FSTree::TakenAbove(const std::string& key) const {
  if (taken_.empty()) return nullptr;
  for (size_t end = key.size(); end != std::string::npos && end > 0;
       end = key.rfind('/', end - 1)) {
    const auto found = taken_.find(key.substr(0, end));
    if (found != taken_.end()) return found->second.get();
  }
  return nullptr;
}

void FSTree::DirSearch(const std::string& path, bool listSync, bool reportNew) {
  ScanFolder(path, Scan{listSync, reportNew});
}

// A folder is closed before those below it are read, so that the depth of a tree is not bound by
// the number of open files.
void FSTree::ScanFolder(const std::string& path, const Scan& scan) {
  if (!Utility::isAllowedPath(path + "/")) return;
  FSResourceList current;
  int error = 0;
  if (!ReadFolder(path, current, error)) {
    if (error != 0) ReportUnreadable(path, error);
    return;
  }
  std::vector<std::string> subfolders;
  for (const FSResourcePtr& entry : current) {
    if (entry->isFolder) subfolders.push_back(entry->path);
  }
  if (scan.listSync && !scan.reportNew) {
    for (const FSResourcePtr& entry : current) Queue("sync", *entry);
  }
  if (scan.reportNew) current = ReportEntries(path, current, scan);
  {
    const MutexLock lock(treeMutex);
    snapshot.insert_or_assign(path, std::move(current));
    unread.erase(path);
  }
  for (const std::string& subfolder : subfolders) {
    if (!scan.reportNew || (!pending.contains(subfolder) && SavedList(subfolder) != nullptr)) {
      ScanFolder(subfolder, scan);
    }
  }
}

void FSTree::ReportUnreadable(const std::string& path, int error) {
  const MutexLock lock(treeMutex);
  changes->AppendOutput(changes->templates->Fill("error", path), true);
  changes->AppendOutput(changes->templates->Fill("error", std::strerror(error)), true);
}

// Queues what the scan has to say of each entry, and gives the folder's new saved list: the saved
// records of what the reader knows already, be it still there or not, and the records of what is
// new.
FSResourceList FSTree::ReportEntries(const std::string& path, const FSResourceList& current,
                                     const Scan& scan) {
  const FSResourceList saved = GetSavedResourceList2(path).items;
  const FSResourceIndex savedByPath(saved, FSResourceIndex::Key::path);
  const FSResourceIndex savedByINode(saved, FSResourceIndex::Key::inode);
  std::vector<bool> kept(saved.size(), false);
  FSResourceList told;
  for (const FSResourcePtr& entry : current) {
    if (scan.listSync) Queue("sync", *entry);
    FSResourcePtr known;
    if (const uint32_t at = savedByPath.FirstByPath(entry->path); at != FSResourceIndex::kNone) {
      known = saved[at];
      kept[at] = true;
    } else {
      known = NewEntry(entry, saved, savedByINode);
    }
    if (known == nullptr) continue;
    told.push_back(known);
    const bool hasList = SavedList(entry->path) != nullptr;
    if (known == entry && !(entry->isFolder && hasList)) Queue("create", *entry);
    if (known->isFolder) AddFolder(entry->path);
  }
  for (size_t i = 0; i < saved.size(); ++i) {
    if (!kept[i]) told.push_back(saved[i]);
  }
  return told;
}

// What the saved list is to hold of an entry that it does not hold under this name: the entry
// itself when it is new, what a pending record will tell of it, or nothing when a comparison has to
// find it.
FSResourcePtr FSTree::NewEntry(const FSResourcePtr& entry, const FSResourceList& saved,
                               const FSResourceIndex& savedByINode) const {
  if (const auto found = pending.find(entry->path); found != pending.end()) {
    const FSChangedResource* record = found->second.last;
    return record == nullptr ? nullptr : asResource(*record);
  }
  return holdsFile(saved, savedByINode, *entry) ? nullptr : entry;
}

void FSTree::Queue(const char* action, const FSResource& resource) {
  const MutexLock lock(treeMutex);
  changes->Append(FSChangedResource(action, resource));
}
