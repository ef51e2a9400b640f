#include "FSTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

// Lists the folder's entries in listing order, leaving out what the tool ignores and what vanishes
// meanwhile. `error` gets the reason when the folder cannot be opened, 0 when it went while it was.
bool FSTree::ReadFolder(const std::string& path, FSResourceList& entries, int& error) const {
  const OpenFolder folder = openFolder(path, path == rootPath);
  error = folder == nullptr ? errno : 0;
  if (folder == nullptr || !readStatus(AT_FDCWD, path.c_str())) return false;
  while (const dirent* entry = readdir(folder.get())) {
    if (isSkippedName(entry->d_name)) continue;
    const std::optional<FileStatus> status = readStatus(dirfd(folder.get()), entry->d_name);
    if (!status) continue;
    if (!status->isFolder && isProhibited(entry->d_name)) continue;
    entries.push_back(makeResource(*status, entryPath(path, entry->d_name)));
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
  for (const auto& [oldKey, entries] : saved.lists) {
    const std::string key = movedPath(oldKey);
    if (std::any_of(replaced.begin(), replaced.end(), [&](const FSResourcePtr& folder) {
          return (key + "/").starts_with(folder->path + "/");
        })) {
      continue;
    }
    FSResourceList& list = snapshot[key];
    if (const auto told = told_.find(key); told != told_.end()) {
      list.insert(list.end(), told->second.begin(), told->second.end());
      told_.erase(told);
    }
    const FSResourceList present = list;
    const FSResourceIndex presentByPath(present, FSResourceIndex::Key::path);
    for (const FSResourcePtr& entry : entries) {
      FSResourcePtr moved = movedResource(*entry, movedPath(entry->path));
      const uint32_t at = presentByPath.FirstByPath(moved->path);
      if (at == FSResourceIndex::kNone) {
        if (!IsDeparting(moved->path)) list.push_back(std::move(moved));
      } else if (entry->isFolder && !present[at]->isFolder) {
        replaced.push_back(std::move(moved));
      }
    }
    unread.erase(key);
  }
  saved.newPath = newPath;
  for (const std::string& oldKey : saved.unread) {
    if (snapshot.contains(movedPath(oldKey))) unread.insert(movedPath(oldKey));
  }
  return replaced;
}

void FSTree::NoteTold(const std::string& key, const FSResourceList& entries) {
  FSResourceList& told = told_[key];
  const FSResourceList before = told;
  const FSResourceIndex beforeByPath(before, FSResourceIndex::Key::path);
  for (const FSResourcePtr& entry : entries) {
    const uint32_t at = beforeByPath.FirstByPath(entry->path);
    if (at == FSResourceIndex::kNone) {
      told.push_back(entry);
    } else {
      told[at] = entry;
    }
  }
}

FSResourceList FSTree::TakeUntrue() {
  FSResourceList untrue;
  std::erase_if(told_, [&](const auto& told) {
    const FSResourceList* saved = SavedList(told.first);
    if (saved == nullptr && GetResource(told.first) != nullptr) return false;
    const FSResourceList none;
    const FSResourceIndex savedByPath(saved != nullptr ? *saved : none, FSResourceIndex::Key::path);
    for (const FSResourcePtr& entry : told.second) {
      if (savedByPath.FirstByPath(entry->path) == FSResourceIndex::kNone) untrue.push_back(entry);
    }
    return true;
  });
  return untrue;
}

void FSTree::NoteRead(const std::string& key, bool isRead) {
  const MutexLock lock(treeMutex);
  if (isRead) {
    unread.erase(key);
    return;
  }
  std::string place = key;
  for (size_t moves = 0; moves <= taken_.size() && !snapshot.contains(place); ++moves) {
    FSSavedLists* const taken = TakenAbove(place);
    if (taken == nullptr) return;
    if (taken->newPath.empty()) {
      taken->unread.push_back(place);
      return;
    }
    place = taken->newPath + place.substr(taken->path.size());
  }
  if (snapshot.contains(place)) unread.insert(place);
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
