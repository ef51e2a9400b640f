// Records of single folders, for programs that use the tree as a library.

#include <memory>
#include <utility>

#include "FSPaths.h"
#include "FSTree.h"

FSResourceArray FSTree::GetCurrentResourceList(const std::string& folder) const {
  const std::string key = FSPaths::keyOf(folder);
  FSListingBuilder current;
  Read(key, {}, current);
  FSResourceArray records;
  const FSEntries entries = current.entries();
  for (uint32_t i = 0; i < entries.count(); ++i) {
    records.Append(
        std::make_shared<FSResource>(entries.status(i), FSPaths::join(key, entries.name(i))));
  }
  return records;
}

FSResourceArray FSTree::GetSavedResourceList(const std::string& folderWithSlash) const {
  if (!folderWithSlash.ends_with('/')) return {};
  return GetSavedResourceList2(FSPaths::keyOf(folderWithSlash));
}

FSResourceArray FSTree::GetSavedResourceList2(const std::string& folder) const {
  FSResourceArray records;
  const FSListingPtr listing = KnownListing(folder);
  if (listing == nullptr) return records;
  const FSEntries entries = listing->entries();
  for (uint32_t i = 0; i < entries.count(); ++i) {
    records.Append(
        std::make_shared<FSResource>(entries.status(i), FSPaths::join(folder, entries.name(i))));
  }
  return records;
}

void FSTree::DeleteSavedResourceList(const std::string& path, bool recursive) {
  const MutexLock lock(treeMutex);
  TakeEntry(path);
  if (const auto parent = snapshot.find(FSPaths::parentOf(path)); parent != snapshot.end()) {
    Finish(parent->second);
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
  snapshot.try_emplace(resource->path, Folder{emptyListing()});
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
  for (const FSResourcePtr& entry : entries)
    builder.Add(FSPaths::nameOf(entry->path), entry->status());
  Folder& folder = snapshot[key];
  Drop(folder);
  folder.listing = builder.Finish();
}
