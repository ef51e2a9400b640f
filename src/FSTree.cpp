#include "FSTree.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

#include "FSPaths.h"
#include "FileStatus.h"
#include "utility.h"

namespace {

constexpr size_t kMostDraftsKept = 8;  // each has an index of the folder's names

bool areEqual(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool areEqual(const FileStatus& a, const FileStatus& b) {
  return a.identity == b.identity && a.isFolder == b.isFolder && a.size == b.size &&
         areEqual(a.modified, b.modified) && areEqual(a.created, b.created);
}

// Whether the two, of the same name, give a reader the same picture.
bool giveSamePicture(const FileStatus& a, const FileStatus& b) {
  return a.isFolder == b.isFolder && (a.isFolder || a.modified.tv_sec == b.modified.tv_sec);
}

}  // namespace

void FSTree::InitWithPath(const std::string& path, FSChangeEvents& queue, bool listAll) {
  rootPath = path;
  while (rootPath.size() > 1 && rootPath.ends_with('/')) rootPath.pop_back();
  changes = &queue;
  showAll = listAll;
  if (prohibitedSuffixes.empty()) SetProhibitedSuffixes();
  ClearSnapshot();
  BuildSnapshot();
}

void FSTree::ClearSnapshot() {
  const MutexLock lock(treeMutex);
  snapshot.clear();
  last_ = nullptr;
  drafted_.clear();
  kept_.clear();
  unknown_.clear();
  doubt.clear();
  retries.Clear();
  byNames.Clear();
}

void FSTree::BuildSnapshot() { DirSearch(rootPath, showAll, false); }

// Null when the folder has no listing. Most records concern the same folder as the record before
// them, so the last one found is remembered.
FSTree::Folder* FSTree::FolderAt(std::string_view key) {
  if (last_ != nullptr && last_->first == key) return &last_->second;
  const auto found = snapshot.find(key);
  if (found == snapshot.end()) return nullptr;
  last_ = &*found;
  return &last_->second;
}

FSListingPtr FSTree::Listing(std::string_view key) {
  const MutexLock lock(treeMutex);
  Folder* const folder = FolderAt(key);
  if (folder == nullptr) return nullptr;
  if (folder->draft != nullptr && folder->draft->changes() > 0) Finish(*folder);
  return folder->listing;
}

// Like Listing, but leaves the folder and its draft as they are.
FSListingPtr FSTree::KnownListing(std::string_view key) const {
  const auto found = snapshot.find(key);
  if (found == snapshot.end()) return nullptr;
  const FSListingDraft* const draft = found->second.draft.get();
  return draft != nullptr && draft->changes() > 0 ? draft->Finish() : found->second.listing;
}

std::optional<FileStatus> FSTree::Find(const std::string& path) {
  Folder* const parent = FolderAt(FSPaths::parentOf(path));
  if (parent == nullptr) return std::nullopt;
  return DraftOf(*parent).Find(FSPaths::nameOf(path));
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

// Looking up an entry makes the draft too: it has an index, and the entry is about to change.
FSListingDraft& FSTree::DraftOf(Folder& folder) {
  if (folder.draft == nullptr) {
    folder.draft = std::make_unique<FSListingDraft>(folder.listing);
    drafted_.insert(&folder);
  }
  return *folder.draft;
}

// Makes the draft's listing the folder's.
void FSTree::Finish(Folder& folder) {
  if (folder.draft->changes() > 0) folder.listing = folder.draft->Finish();
  Drop(folder);
}

// Removes the folder's draft, without making a listing of it. Whatever removes or replaces a
// folder calls it first, because last_, drafted_ and kept_ point to folders.
void FSTree::Drop(Folder& folder) {
  last_ = nullptr;
  if (folder.draft == nullptr) return;
  folder.draft.reset();
  drafted_.erase(&folder);
  std::erase(kept_, &folder);
}

// The folder of an entry that is put in has no listing yet.
FSTree::Folder& FSTree::EnterFolder(const std::string& key) {
  if (key != rootPath) {
    const std::optional<FileStatus> known = Find(key);
    if (!known || !known->isFolder) unknown_.insert(key);
  }
  return snapshot.emplace(key, Folder{emptyListing()}).first->second;
}

void FSTree::PutEntry(const std::string& path, const FileStatus& status) {
  const std::string_view parent = FSPaths::parentOf(path);
  Folder* folder = FolderAt(parent);
  if (folder == nullptr) folder = &EnterFolder(std::string(parent));
  if (unknown_.contains(parent)) doubt.emplace(parent);
  DraftOf(*folder).Put(FSPaths::nameOf(path), status);
  if (!status.isFolder) return;
  unknown_.erase(path);
  const bool isFirst = snapshot.try_emplace(path, Folder{emptyListing()}).second;
  if (isFirst && Utility::isAllowedPath(path + "/")) doubt.insert(path);
}

std::optional<FileStatus> FSTree::TakeEntry(const std::string& path) {
  Folder* const parent = FolderAt(FSPaths::parentOf(path));
  return parent == nullptr ? std::nullopt : DraftOf(*parent).Take(FSPaths::nameOf(path));
}

// Only a folder has entries below it; but while there are unknown folders, these can be below any
// path.
void FSTree::TakeAllAt(const std::string& path) {
  const std::optional<FileStatus> taken = TakeEntry(path);
  if ((taken && taken->isFolder) || !unknown_.empty()) EraseAtAndBelow(path);
}

void FSTree::EraseAtAndBelow(const std::string& path) {
  FSPaths::eachAtAndBelow(snapshot, path, [&](auto at) {
    Drop(at->second);
    snapshot.erase(at);
  });
  FSPaths::eachAtAndBelow(byNames.uses(), path, [&](auto at) { byNames.uses().erase(at); });
  for (auto* keys : {&unknown_, &doubt}) {
    FSPaths::eachAtAndBelow(*keys, path, [&](auto at) { keys->erase(at); });
  }
  std::vector<std::string> unread;
  FSPaths::eachAtAndBelow(retries.tries(), path, [&](auto at) { unread.push_back(at->first); });
  for (const std::string& key : unread) retries.Remove(key);
}

// What could not be read at the old place is in doubt at the new one: it may be readable there.
void FSTree::MoveAtAndBelow(const std::string& from, const std::string& to) {
  const auto moved = [&](const std::string& key) { return to + key.substr(from.size()); };
  last_ = nullptr;
  std::vector<Snapshot::node_type> folders;
  FSPaths::eachAtAndBelow(snapshot, from,
                          [&](auto at) { folders.push_back(snapshot.extract(at)); });
  for (Snapshot::node_type& folder : folders) {
    folder.key() = moved(folder.key());
    snapshot.insert(std::move(folder));
  }
  for (auto* keys : {&unknown_, &doubt}) {
    std::vector<std::string> old;
    FSPaths::eachAtAndBelow(*keys, from, [&](auto at) { old.push_back(*at); });
    for (const std::string& key : old) keys->erase(key);
    for (const std::string& key : old) keys->insert(moved(key));
  }
  std::vector<FSByNames::Uses::node_type> uses;
  FSPaths::eachAtAndBelow(byNames.uses(), from,
                          [&](auto at) { uses.push_back(byNames.uses().extract(at)); });
  for (FSByNames::Uses::node_type& use : uses) {
    use.key() = moved(use.key());
    byNames.uses().insert(std::move(use));
  }
  std::vector<std::string> unread;
  FSPaths::eachAtAndBelow(retries.tries(), from, [&](auto at) { unread.push_back(at->first); });
  for (const std::string& key : unread) {
    retries.Remove(key);
    doubt.insert(moved(key));
  }
}

std::vector<std::string> FSTree::PathsBelow(const std::string& key) const {
  std::vector<std::string> paths;
  if (unknown_.empty()) return paths;
  FSPaths::eachAtAndBelow(snapshot, key, [&](auto at) {
    const FSListingPtr listing = KnownListing(at->first);
    const FSEntries entries = listing->entries();
    for (uint32_t i = 0; i < entries.count(); ++i) {
      paths.push_back(FSPaths::join(at->first, entries.name(i)));
    }
  });
  std::sort(paths.begin(), paths.end(), std::greater<>());
  return paths;
}

bool FSTree::Agrees(const std::string& key, const FSEntries& entries, Replaced& replaced) {
  const Folder* const found = FolderAt(key);
  if (found == nullptr) return false;
  const Folder& folder = *found;
  const auto agrees = [&](uint32_t position, const FileStatus& saved) {
    const FileStatus current = entries.status(position);
    if (current.isFolder && saved.isFolder && current.identity != saved.identity) {
      replaced.emplace_back(FSPaths::join(key, entries.name(position)), current.identity);
    }
    return giveSamePicture(current, saved);
  };
  if (folder.draft != nullptr) {
    bool isSame = folder.draft->count() == entries.count();
    for (uint32_t i = 0; i < entries.count(); ++i) {
      const std::optional<FileStatus> saved = folder.draft->Find(entries.name(i));
      if (!saved || !agrees(i, *saved)) isSame = false;
    }
    return isSame;
  }
  // No record has changed it. Most often the comparison has found nothing new either, or only other
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

bool FSTree::AgreesOn(const std::string& key, const FSNames& names, const FSEntries& entries,
                      Replaced& replaced) {
  const auto found = snapshot.find(key);
  if (found == snapshot.end()) return false;
  const FSListingIndex byName(entries, FSListingIndex::Key::name);
  bool isSame = true;
  for (const std::string& name : names) {
    const uint32_t at = byName.FirstNamed(name);
    const std::optional<FileStatus> saved = DraftOf(found->second).Find(name);
    if (at == FSListingIndex::kNone || !saved) {
      isSame = isSame && at == FSListingIndex::kNone && !saved;
      continue;
    }
    const FileStatus current = entries.status(at);
    isSame = isSame && giveSamePicture(current, *saved);
    if (current.isFolder && saved->isFolder && current.identity != saved->identity) {
      replaced.emplace_back(FSPaths::join(key, name), current.identity);
    }
  }
  return isSame;
}

void FSTree::Forget(const std::string& key) {
  const MutexLock lock(treeMutex);
  const auto found = snapshot.find(key);
  if (found == snapshot.end() || found->second.listing->entries().count() > 0) return;
  Drop(found->second);
  snapshot.erase(found);
  unknown_.erase(key);
  doubt.erase(key);
}

void FSTree::SetListing(const std::string& key, FSListingPtr listing,
                        const FileIdentity& identity) {
  const MutexLock lock(treeMutex);
  Folder& folder = last_ != nullptr && last_->first == key ? last_->second : snapshot[key];
  Drop(folder);
  folder = {std::move(listing), nullptr, identity};
  byNames.Remove(key);
}

void FSTree::SetEntries(const std::string& key, const FSEntries& entries, bool isReported) {
  const MutexLock lock(treeMutex);
  Folder& folder = snapshot.find(key)->second;
  for (uint32_t i = 0; i < entries.count(); ++i) {
    const FileStatus current = entries.status(i);
    const std::optional<FileStatus> saved = DraftOf(folder).Find(entries.name(i));
    if (!saved || !areEqual(*saved, current)) DraftOf(folder).Put(entries.name(i), current);
  }
  if (!isReported) folder.identity = {};
  byNames.Note(key, folder.listing->entries().count(), FSByNames::Clock::now());
}

void FSTree::FinishDrafts() {
  const MutexLock lock(treeMutex);
  const std::vector<Folder*> drafted(drafted_.begin(), drafted_.end());
  for (Folder* folder : drafted) {
    const uint32_t count = folder->listing->entries().count();
    if (!AreFew(folder->draft->changes(), count)) {
      Finish(*folder);
    } else if (std::find(kept_.begin(), kept_.end(), folder) == kept_.end()) {
      kept_.push_back(folder);
    }
  }
  while (kept_.size() > kMostDraftsKept) Finish(*kept_.front());
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
