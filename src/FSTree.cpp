#include "FSTree.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <iterator>
#include <memory>
#include <utility>

#include "FileStatus.h"
#include "FolderEntries.h"
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

// Adds the saved entries of those names, where what has been read does not have them.
template <typename Wanted>
void keepSaved(const FSEntries& saved, Wanted isWanted, FSListingBuilder& current) {
  const FSListingPtr read = current.Finish();
  const FSListingIndex byName(read->entries(), FSListingIndex::Key::name);
  for (uint32_t i = 0; i < saved.count(); ++i) {
    const bool isRead = byName.FirstNamed(saved.name(i)) != FSListingIndex::kNone;
    if (!isRead && isWanted(saved.name(i))) current.Add(saved, i);
  }
}

// Whether the entries, and their counterparts by position or by name, say the same to a reader.
bool sayTheSame(const FileStatus& a, const FileStatus& b) {
  return a.isFolder == b.isFolder && (a.isFolder || a.modified.tv_sec == b.modified.tv_sec);
}

// Calls `visit(at)` for the element at the folder's own key, if any, and for those at keys that
// begin with it and "/". Keys sort by bytes, so those below are together, but not always next to
// the folder's own. `visit` may take its element out.
template <typename Container, typename Visit>
void eachAtAndBelow(Container& container, const std::string& path, Visit visit) {
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
  drafted_.clear();
  unknown_.clear();
  doubt.clear();
  retries.Clear();
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
  return status ? std::make_shared<const FSResource>(*status, path) : nullptr;
}

FSLook FSTree::Read(const std::string& key, const FSEntries& saved,
                    FSListingBuilder& current) const {
  current.Clear();
  const OpenFolder folder(key, key == rootPath);
  if (!folder.isOpen()) return {readingOf(folder.failure()), {}};
  return {ReadFolder(folder, key, saved, current), IdentityOf(folder)};
}

FileIdentity FSTree::IdentityOf(const OpenFolder& folder) {
  const std::optional<FileStatus> status = readStatus(folder.number(), "");
  return status ? status->identity : FileIdentity{};
}

FSReading FSTree::ReadFolder(const OpenFolder& folder, const std::string& path,
                             const FSEntries& saved, FSListingBuilder& current) const {
  bool isPartial = false;
  std::set<std::string, std::less<>> unreadNames;
  const bool isListed = eachEntry(folder.number(), [&](const auto& entry) {
    const std::string_view name = entry.d_name;
    if (name == ".DS_Store") return;
    if (path.size() + 1 + name.size() >= PATH_MAX) return;
    const std::optional<FileStatus> status = readStatus(folder.number(), entry.d_name);
    if (!status) {
      const Failure failure = failureOf(errno);
      isPartial |= failure != Failure::absent;
      if (failure == Failure::passing) unreadNames.emplace(name);
    } else if (status->isFolder || !isProhibited(name)) {
      current.Add(name, *status);
    }
  });
  const bool isCutOff = !isListed && failureOf(errno) == Failure::passing;
  if (isCutOff || !unreadNames.empty()) {
    keepSaved(
        saved, [&](std::string_view name) { return isCutOff || unreadNames.contains(name); },
        current);
  }
  if (isCutOff || isPartial) return FSReading::partial;
  // A folder that has gone meanwhile is empty.
  const bool isGone = current.entries().count() == 0 && !readStatus(AT_FDCWD, path.c_str());
  return isGone ? FSReading::absent : FSReading::whole;
}

FSListingPtr FSTree::Listing(std::string_view key) const {
  const auto found = snapshot.find(key);
  return found == snapshot.end() ? nullptr : found->second.listing;
}

// The listing with what records have changed in it.
FSListingPtr FSTree::KnownListing(const std::string& key) const {
  const auto found = snapshot.find(key);
  if (found == snapshot.end()) return nullptr;
  return found->second.draft != nullptr ? found->second.draft->Finish() : found->second.listing;
}

std::optional<FileStatus> FSTree::Find(const std::string& path) {
  const auto parent = snapshot.find(ParentOf(path));
  if (parent == snapshot.end()) return std::nullopt;
  return DraftOf(parent->second).Find(NameOf(path));
}

void FSTree::Put(const std::string& path, const FileStatus& status) {
  const MutexLock lock(treeMutex);
  PutEntry(path, status);
}

void FSTree::Take(const std::string& path) {
  const MutexLock lock(treeMutex);
  TakeAllAt(path);
}

void FSTree::Rename(const std::string& oldPath, const std::string& path, const FileStatus& status) {
  const MutexLock lock(treeMutex);
  TakeEntry(oldPath);
  TakeAllAt(path);
  if (status.isFolder) MoveAtAndBelow(oldPath, path);
  PutEntry(path, status);
}

// The draft has an index: what is looked up in a folder is about to change it.
FSListingDraft& FSTree::DraftOf(Folder& folder) {
  if (folder.draft == nullptr) {
    folder.draft = std::make_unique<FSListingDraft>(folder.listing);
    drafted_.insert(&folder);
  }
  return *folder.draft;
}

void FSTree::PutEntry(const std::string& path, const FileStatus& status) {
  const std::string parent(ParentOf(path));
  auto folder = snapshot.find(parent);
  if (folder == snapshot.end()) {
    const std::optional<FileStatus> known = parent == rootPath ? std::nullopt : Find(parent);
    folder = snapshot.emplace(parent, Folder{emptyListing(), nullptr}).first;
    if (parent != rootPath && !(known && known->isFolder)) unknown_.insert(parent);
  }
  if (unknown_.contains(parent)) doubt.insert(parent);
  DraftOf(folder->second).Put(NameOf(path), status);
  if (!status.isFolder) return;
  unknown_.erase(path);
  const bool isFirst = snapshot.try_emplace(path, Folder{emptyListing(), nullptr}).second;
  if (isFirst && Utility::isAllowedPath(path + "/")) doubt.insert(path);
}

std::optional<FileStatus> FSTree::TakeEntry(const std::string& path) {
  const auto parent = snapshot.find(ParentOf(path));
  return parent == snapshot.end() ? std::nullopt : DraftOf(parent->second).Take(NameOf(path));
}

// Only a folder has anything below it, or what is below an unknown one.
void FSTree::TakeAllAt(const std::string& path) {
  const std::optional<FileStatus> taken = TakeEntry(path);
  if ((taken && taken->isFolder) || !unknown_.empty()) EraseAtAndBelow(path);
}

void FSTree::EraseAtAndBelow(const std::string& path) {
  eachAtAndBelow(snapshot, path, [&](auto at) {
    drafted_.erase(&at->second);
    snapshot.erase(at);
  });
  for (auto* keys : {&unknown_, &doubt}) {
    eachAtAndBelow(*keys, path, [&](auto at) { keys->erase(at); });
  }
  std::vector<std::string> unread;
  eachAtAndBelow(retries.tries(), path, [&](auto at) { unread.push_back(at->first); });
  for (const std::string& key : unread) retries.Remove(key);
}

// What could not be read at the old place is in doubt at the new one: there it may be read.
void FSTree::MoveAtAndBelow(const std::string& from, const std::string& to) {
  const auto moved = [&](const std::string& key) { return to + key.substr(from.size()); };
  std::vector<Snapshot::node_type> folders;
  eachAtAndBelow(snapshot, from, [&](auto at) { folders.push_back(snapshot.extract(at)); });
  for (Snapshot::node_type& folder : folders) {
    folder.key() = moved(folder.key());
    snapshot.insert(std::move(folder));
  }
  for (auto* keys : {&unknown_, &doubt}) {
    std::vector<std::string> old;
    eachAtAndBelow(*keys, from, [&](auto at) { old.push_back(*at); });
    for (const std::string& key : old) keys->erase(key);
    for (const std::string& key : old) keys->insert(moved(key));
  }
  std::vector<std::string> unread;
  eachAtAndBelow(retries.tries(), from, [&](auto at) { unread.push_back(at->first); });
  for (const std::string& key : unread) {
    retries.Remove(key);
    doubt.insert(moved(key));
  }
}

std::vector<std::string> FSTree::PathsBelow(const std::string& key) const {
  std::vector<std::string> paths;
  if (unknown_.empty()) return paths;
  eachAtAndBelow(snapshot, key, [&](auto at) {
    const FSListingPtr listing = KnownListing(at->first);
    const FSEntries entries = listing->entries();
    for (uint32_t i = 0; i < entries.count(); ++i) {
      paths.push_back(Join(at->first, entries.name(i)));
    }
  });
  std::sort(paths.begin(), paths.end(), std::greater<>());
  return paths;
}

bool FSTree::Agrees(const std::string& key, const FSEntries& entries, Replaced& replaced) const {
  const auto found = snapshot.find(key);
  if (found == snapshot.end()) return false;
  const Folder& folder = found->second;
  const auto agrees = [&](uint32_t position, const FileStatus& saved) {
    const FileStatus current = entries.status(position);
    if (current.isFolder && saved.isFolder && current.identity != saved.identity) {
      replaced.emplace_back(Join(key, entries.name(position)), current.identity);
    }
    return sayTheSame(current, saved);
  };
  if (folder.draft != nullptr) {
    bool isSame = folder.draft->count() == entries.count();
    for (uint32_t i = 0; i < entries.count(); ++i) {
      const std::optional<FileStatus> saved = folder.draft->Find(entries.name(i));
      if (!saved || !agrees(i, *saved)) isSame = false;
    }
    return isSame;
  }
  // No record has changed it. Most often the comparison has not found anything new either, or only
  // attributes, and the order is the same.
  const FSEntries saved = folder.listing->entries();
  std::optional<FSListingIndex> byName;
  bool isSame = saved.count() == entries.count();
  for (uint32_t i = 0; i < entries.count(); ++i) {
    uint32_t at = i;
    if (i >= saved.count() || saved.name(i) != entries.name(i)) {
      if (!byName) byName.emplace(saved, FSListingIndex::Key::name);
      at = byName->FirstNamed(entries.name(i));
    }
    if (at == FSListingIndex::kNone || !agrees(i, saved.status(at))) isSame = false;
  }
  return isSame;
}

void FSTree::Forget(const std::string& key) {
  const MutexLock lock(treeMutex);
  const auto found = snapshot.find(key);
  if (found == snapshot.end() || found->second.listing->entries().count() > 0) return;
  drafted_.erase(&found->second);
  snapshot.erase(found);
  unknown_.erase(key);
  doubt.erase(key);
}

void FSTree::SetListing(const std::string& key, FSListingPtr listing) {
  const MutexLock lock(treeMutex);
  Folder& folder = snapshot[key];
  drafted_.erase(&folder);
  folder = {std::move(listing), nullptr};
}

void FSTree::FinishDrafts() {
  const MutexLock lock(treeMutex);
  for (Folder* folder : std::exchange(drafted_, {})) {
    folder->listing = folder->draft->Finish();
    folder->draft.reset();
  }
}

void FSTree::NoteReading(const std::string& key, FSReading reading) {
  const MutexLock lock(treeMutex);
  if (reading == FSReading::whole || reading == FSReading::absent) {
    retries.Remove(key);
  } else {
    retries.Add(key, std::chrono::steady_clock::now());
  }
}

bool FSTree::ReadAgain(const std::string& key) {
  const MutexLock lock(treeMutex);
  if (!retries.contains(key)) return false;
  retries.Remove(key);
  doubt.insert(key);
  return true;
}

std::string FSTree::KeyOf(const std::string& folderWithSlash) {
  return folderWithSlash.size() == 1 ? folderWithSlash
                                     : folderWithSlash.substr(0, folderWithSlash.size() - 1);
}

std::string FSTree::FolderOf(const std::string& key) { return key == "/" ? key : key + "/"; }

std::string FSTree::Join(const std::string& key, std::string_view name) {
  std::string path;
  path.reserve(key.size() + 1 + name.size());
  path += key;
  if (key != "/") path += '/';
  return path += name;
}

std::string_view FSTree::ParentOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

std::string_view FSTree::NameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

FSResourceArray FSTree::GetCurrentResourceList(const std::string& folder) const {
  const std::string key = folder.ends_with('/') ? KeyOf(folder) : folder;
  FSListingBuilder current;
  Read(key, {}, current);
  FSResourceArray records;
  const FSEntries entries = current.entries();
  for (uint32_t i = 0; i < entries.count(); ++i) {
    records.Append(std::make_shared<FSResource>(entries.status(i), Join(key, entries.name(i))));
  }
  return records;
}

FSResourceArray FSTree::GetSavedResourceList(const std::string& folderWithSlash) const {
  if (!folderWithSlash.ends_with('/')) return {};
  return GetSavedResourceList2(KeyOf(folderWithSlash));
}

FSResourceArray FSTree::GetSavedResourceList2(const std::string& folder) const {
  FSResourceArray records;
  const FSListingPtr listing = Listing(folder);
  if (listing == nullptr) return records;
  const FSEntries entries = listing->entries();
  for (uint32_t i = 0; i < entries.count(); ++i) {
    records.Append(std::make_shared<FSResource>(entries.status(i), Join(folder, entries.name(i))));
  }
  return records;
}

void FSTree::DeleteSavedResourceList(const std::string& path, bool recursive) {
  const MutexLock lock(treeMutex);
  TakeEntry(path);
  if (const auto parent = snapshot.find(ParentOf(path)); parent != snapshot.end()) {
    parent->second.listing = parent->second.draft->Finish();
    parent->second.draft.reset();
    drafted_.erase(&parent->second);
  }
  if (recursive) EraseAtAndBelow(path);
}

void FSTree::AddDirResource(const std::string& folder, const FSResourcePtr& resource) {
  const MutexLock lock(treeMutex);
  if (snapshot.contains(folder)) {
    FSResourceList entries = GetSavedResourceList2(folder).items;
    entries.push_back(resource);
    Rebuild(folder, entries);
  }
  if (!resource->isFolder) return;
  snapshot.try_emplace(resource->path, Folder{emptyListing(), nullptr});
}

void FSTree::UpdateDir(const std::string& folder, const FSResourceArray& entries) {
  const MutexLock lock(treeMutex);
  if (snapshot.contains(folder)) Rebuild(folder, entries.items);
}

void FSTree::DeleteDirResource(const std::string& folder, const FSResource& resource) {
  FSResourceArray kept;
  for (const FSResourcePtr& entry : GetSavedResourceList2(folder).items) {
    if (entry->path != resource.path) kept.Append(entry);
  }
  UpdateDir(folder, kept);
}

void FSTree::Rebuild(const std::string& key, const FSResourceList& entries) {
  FSListingBuilder builder;
  for (const FSResourcePtr& entry : entries) builder.Add(NameOf(entry->path), entry->status());
  snapshot[key].listing = builder.Finish();
}
