#include "FSTree.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iterator>
#include <memory>
#include <optional>

#include "FileStatus.h"
#include "FolderEntries.h"
#include "HeapGrowth.h"
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

FSResourcePtr makeResource(const FileStatus& status, FSPath path) {
  auto resource =
      std::make_shared<FSResource>(status.inode, std::move(path), status.isFolder, status.modified,
                                   status.created, status.size, FSText());
  resource->birth = status.birth;
  return resource;
}

// The saved record of what has not changed at all, or null. Most entries of a folder come in the
// order in which they came the last time, so only those from `next` on are looked at, a few of
// them; it goes on behind the one that is found. The inode number is the cheapest thing to compare.
FSResourcePtr savedAs(const FSResourceList& saved, size_t& next, const FileStatus& status,
                      const FSText& folder, std::string_view name) {
  constexpr size_t kFew = 8;
  const auto isSame = [](const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
  };
  for (size_t i = next; i < std::min(saved.size(), next + kFew); ++i) {
    const FSResource& record = *saved[i];
    if (record.inode != status.inode || record.path.name() != name) continue;
    next = i + 1;
    const bool isUnchanged = record.birth == status.birth && record.isFolder == status.isFolder &&
                             record.path.folder() == folder &&
                             isSame(record.modified, status.modified) &&
                             isSame(record.created, status.created) && record.size == status.size;
    return isUnchanged ? saved[i] : nullptr;
  }
  return nullptr;
}

}  // namespace

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

// Lists the open folder's entries in listing order, leaving out what the tool ignores, what
// vanishes meanwhile and what lies so deep that no path leads to it. Partial when some of it could
// not be read, gone when the folder itself has vanished.
FSTree::Reading FSTree::ReadFolder(const FSOpenFolder& folder, const std::string& path,
                                   const FSResourceList* saved, FSResourceList& entries) const {
  populateHeapGrowth();
  const FSText inFolder = TextOf(path, saved);
  size_t next = 0;
  bool haveAllStatus = true;
  const bool isWhole = eachEntry(folder.number(), [&](const auto& entry) {
    const std::string_view name = entry.d_name;
    if (name == ".DS_Store") return;
    if (inFolder.view().size() + name.size() >= PATH_MAX) return;
    const std::optional<FileStatus> status = readStatus(folder.number(), entry.d_name);
    haveAllStatus &= status || errno == ENOENT;
    if (!status || (!status->isFolder && isProhibited(name))) return;
    FSResourcePtr known =
        saved == nullptr ? nullptr : savedAs(*saved, next, *status, inFolder, name);
    entries.push_back(known != nullptr ? std::move(known)
                                       : makeResource(*status, FSPath(inFolder, name)));
  });
  // A folder that has gone meanwhile is empty.
  if (entries.empty() && !readStatus(AT_FDCWD, path.c_str())) return Reading::gone;
  return isWhole && haveAllStatus ? Reading::whole : Reading::partial;
}

// The folder's text for the paths of its entries: the one that saved entries have already, or a new
// one.
FSText FSTree::TextOf(const std::string& key, const FSResourceList* saved) const {
  std::string text = FolderOf(key);
  if (saved != nullptr && !saved->empty() && saved->front()->path.parent() == text) {
    return saved->front()->path.folder();
  }
  return text;
}

FSResourceArray FSTree::GetCurrentResourceList(const std::string& folder) const {
  FSResourceList entries;
  ReadCurrentList(folder.ends_with('/') ? KeyOf(folder) : folder, entries);
  return FSResourceArray(std::move(entries));
}

bool FSTree::ReadCurrentList(const std::string& key, FSResourceList& entries) const {
  const FSOpenFolder folder(key, key == rootPath);
  return folder.isOpen() && ReadFolder(folder, key, SavedList(key), entries) == Reading::whole;
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
    if (const auto parent = snapshot.find(ParentOf(path)); parent != snapshot.end()) {
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
    copies.push_back(std::make_shared<FSResource>(*entry));
  found->second = std::move(copies);
}

void FSTree::DeleteDirResource(const std::string& folder, const FSResource& resource) {
  FSResourceArray kept;
  for (const FSResourcePtr& entry : GetSavedResourceList2(folder).items) {
    if (entry->path != resource.path) kept.Append(entry);
  }
  UpdateDir(folder, kept);
}

std::string FSTree::FolderOf(const std::string& key) { return key == "/" ? key : key + "/"; }

std::string_view FSTree::ParentOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

std::string FSTree::MovedPath(const std::string& path, const std::string& from,
                              const std::string& to) {
  return to + path.substr(from.size());
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
  const FSResourceList* siblings = SavedList(ParentOf(key));
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
