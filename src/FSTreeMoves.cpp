// What the snapshot does when folders move: lists that follow them, and what the reader has been
// told of folders that have no list.

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <utility>

#include "FSTree.h"

namespace {

// The entries of a folder as they are under its new key.
FSResourceList movedTo(const std::string& newKey, const FSResourceList& entries) {
  const auto folder = std::make_shared<const std::string>(FSTree::FolderOf(newKey));
  FSResourceList list;
  list.reserve(entries.size());
  for (const FSResourcePtr& entry : entries) {
    list.push_back(withPath(*entry, FSPath(folder, entry->path.name())));
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
      if (above->second != nullptr) above->second->lists.emplace_back(key, movedTo(key, entries));
      continue;
    }
    FSResourceList& list = snapshot[key];
    if (const auto told = told_.find(key); told != told_.end()) {
      const FSResourceList compared = list;
      const FSResourceIndex comparedByPath(compared, FSResourceIndex::Key::path);
      for (const Told& entry : told->second) {
        if (comparedByPath.FirstByPath(entry.resource->path) == FSResourceIndex::kNone) {
          list.push_back(entry.resource);
        }
      }
      told_.erase(told);
    }
    const FSResourceList present = list;
    const FSResourceIndex presentByPath(present, FSResourceIndex::Key::path);
    for (const FSResourcePtr& entry : movedTo(key, entries)) {
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
      const std::string path = entry.resource->path;
      const bool isBelow = path.starts_with(below);
      return entry.isTold &&
             ((isGone && path == gone) || (((isGone && record.isFolder) || isReplaced) && isBelow));
    });
  }
  std::erase_if(told_, [](const auto& told) { return told.second.empty(); });
  const auto parent = told_.find(std::string(ParentOf(record.path)));
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
      const std::string path = entry.resource->path;
      if (!entry.isTold || !path.starts_with(below)) continue;
      moving.push_back({withPath(*entry.resource, newPath + path.substr(oldPath.size())), true});
    }
  }
  for (Told& entry : moving) {
    told_[std::string(ParentOf(entry.resource->path.str()))].push_back(std::move(entry));
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
    taken->lists.emplace_back(movedPath(key), movedTo(movedPath(key), entries));
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
