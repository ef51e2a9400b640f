// What the snapshot does when folders move: lists that follow them, and what the reader has been
// told of folders that have no list.

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <utility>

#include "FSTree.h"

namespace {

// The entries of a folder as they are under its new key.
FSResourceList movedTo(const std::string& newKey, const FSResourceList& entries) {
  const FSText folder = FSTree::FolderOf(newKey);
  FSResourceList list;
  list.reserve(entries.size());
  for (const FSResourcePtr& entry : entries) {
    list.push_back(withPath(*entry, FSPath(folder, entry->path.nameText())));
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

FSResourceList FSTree::PutSavedLists(FSSavedLists& saved, const std::string& newPath,
                                     const std::string& toldPath) {
  const MutexLock lock(treeMutex);
  FSResourceList replaced;
  Elsewhere elsewhere;
  for (const auto& [oldKey, entries] : saved.lists) {
    const std::string key = MovedPath(oldKey, saved.path, newPath);
    const std::string toldKey = MovedPath(oldKey, saved.path, toldPath);
    const auto above = Above(key, elsewhere);
    if (above == elsewhere.end()) {
      PutSavedList(key, toldKey, movedTo(key, entries), elsewhere, replaced);
    } else if (above->second != nullptr) {
      above->second->lists.emplace_back(toldKey, movedTo(toldKey, entries));
    }
  }
  saved.newPath = newPath;
  for (const std::string& oldKey : saved.unread) {
    const std::string key = MovedPath(oldKey, saved.path, newPath);
    const auto above = Above(key, elsewhere);
    if (above == elsewhere.end()) {
      if (snapshot.contains(key)) unread.insert(key);
    } else if (above->second != nullptr) {
      above->second->unread.push_back(MovedPath(oldKey, saved.path, toldPath));
    }
  }
  return replaced;
}

FSTree::Elsewhere::const_iterator FSTree::Above(const std::string& key,
                                                const Elsewhere& elsewhere) {
  return std::find_if(elsewhere.begin(), elsewhere.end(), [&](const auto& folder) {
    return (key + "/").starts_with(folder.first + "/");
  });
}

// Adds the entries to the list under the key, after what is there and what has been told of the
// folder, which records know as `toldKey`. Notes the folders among them that do not stand here any
// more.
void FSTree::PutSavedList(const std::string& key, const std::string& toldKey,
                          const FSResourceList& entries, Elsewhere& elsewhere,
                          FSResourceList& replaced) {
  FSResourceList& list = snapshot[key];
  const FSResourceList compared = list;
  const FSResourceIndex comparedByPath(compared, FSResourceIndex::Key::path);
  for (const FSResourcePtr& entry : TakeTold(key)) {
    if (comparedByPath.FirstByPath(entry->path) == FSResourceIndex::kNone) list.push_back(entry);
  }
  const FSResourceList present = list;
  const FSResourceIndex presentByPath(present, FSResourceIndex::Key::path);
  for (const FSResourcePtr& entry : entries) {
    const uint32_t at = presentByPath.FirstByPath(entry->path);
    const std::string toldPath = MovedPath(entry->path, key, toldKey);
    if (at != FSResourceIndex::kNone) {
      if (!entry->isFolder || present[at]->isFolder) continue;
      elsewhere.emplace_back(entry->path, nullptr);
      replaced.push_back(entry);
    } else if (IsDeparting(toldPath)) {
      const auto taken = taken_.find(toldPath);
      elsewhere.emplace_back(entry->path, taken != taken_.end() ? taken->second.get() : nullptr);
    } else {
      list.push_back(entry);
    }
  }
  unread.erase(key);
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

void FSTree::NoteCompared(const FSResourceList& entries) {
  for (const FSResourcePtr& entry : entries) told_[entry->path].resource = entry;
}

void FSTree::NoteTold(const FSChangedResource& record) {
  if (told_.empty()) return;
  if (record.action == "delete") {
    ForgetTold(record.path, record.isFolder);
  } else if (record.action == "rename") {
    if (record.isFolder) MoveTold(record.oldPath, record.path);
    ForgetTold(record.oldPath, record.isFolder);
  } else if (record.action == "create" && !record.isFolder &&
             SavedList(record.path.str()) != nullptr) {
    // A file where a folder was: what was in the folder is gone.
    TakeSavedLists(record.path);
    ForgetToldBelow(record.path);
  }
  const auto own = told_.find(record.path);
  if (own != told_.end() && record.action != "delete") own->second.isTold = true;
}

void FSTree::ForgetTold(const std::string& path, bool isFolder) {
  const auto own = told_.find(path);
  if (own != told_.end() && own->second.isTold) told_.erase(own);
  if (isFolder) ForgetToldBelow(path);
}

void FSTree::ForgetToldBelow(const std::string& path) {
  eachAtOrBelow(told_, path, [&](auto at) {
    if (at->first != path && at->second.isTold) told_.erase(at);
  });
}

// What has been told of a folder's contents is told of its new path as well.
void FSTree::MoveTold(const std::string& oldPath, const std::string& newPath) {
  FSResourceList moving;
  eachAtOrBelow(told_, oldPath, [&](auto at) {
    if (at->first == oldPath || !at->second.isTold) return;
    moving.push_back(withPath(*at->second.resource, MovedPath(at->first, oldPath, newPath)));
  });
  for (const FSResourcePtr& entry : moving) told_[entry->path] = {entry, true};
}

// What has been told of the folder's own entries, which is then no longer kept here.
FSResourceList FSTree::TakeTold(const std::string& key) {
  FSResourceList entries;
  eachAtOrBelow(told_, key, [&](auto at) {
    if (ParentOf(at->first) != key) return;
    entries.push_back(at->second.resource);
    told_.erase(at);
  });
  return entries;
}

FSChangeList FSTree::TakeUntrue() {
  std::set<std::string, std::greater<>> folders;  // those below come first
  for (const auto& [path, told] : told_) folders.emplace(ParentOf(path));
  FSChangeList untrue;
  for (const std::string& key : folders) {
    const FSResourceList* saved = SavedList(key);
    const FSResourcePtr now = saved == nullptr ? GetResource(key) : nullptr;
    if (now != nullptr && now->isFolder) continue;
    const FSResourceList none;
    const FSResourceIndex savedByPath(saved != nullptr ? *saved : none, FSResourceIndex::Key::path);
    for (const FSResourcePtr& entry : TakeTold(key)) {
      if (savedByPath.FirstByPath(entry->path) != FSResourceIndex::kNone) continue;
      untrue.emplace_back("delete", *entry);
      if (entry->isFolder) untrue.back().saved = TakeSavedLists(entry->path);
    }
  }
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
  for (const auto& [oldKey, entries] : saved.lists) {
    const std::string key = MovedPath(oldKey, saved.path, path);
    taken->lists.emplace_back(key, movedTo(key, entries));
  }
  for (const std::string& oldKey : saved.unread) {
    taken->unread.push_back(MovedPath(oldKey, saved.path, path));
  }
  return true;
}

// Follows the key to where its list has gone in this callback. Returns the taken lists that it is
// among; null when it stands in the snapshot, or nowhere.
FSSavedLists* FSTree::FindPlace(std::string& key) const {
  for (size_t moves = 0; moves <= taken_.size() && !snapshot.contains(key); ++moves) {
    FSSavedLists* const taken = TakenAbove(key);
    if (taken == nullptr || taken->newPath.empty()) return taken;
    key = MovedPath(key, taken->path, taken->newPath);
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
