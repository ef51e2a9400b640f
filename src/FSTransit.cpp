#include "FSTransit.h"

#include <algorithm>
#include <utility>

#include "utility.h"

namespace {

// Calls `visit(at)` for the element of the path and those below it; `visit` may take its element
// out.
template <typename Map, typename Visit>
void eachAtAndBelow(Map& map, const std::string& path, Visit visit) {
  if (map.empty()) return;
  if (const auto own = map.find(path); own != map.end()) visit(own);
  const std::string below = path + "/";
  for (auto at = map.lower_bound(below); at != map.end() && at->first.starts_with(below);) {
    visit(at++);
  }
}

}  // namespace

// Where the snapshot has the folder, if anywhere.
std::optional<std::string> FSTransit::PlaceOf(const std::string& key) const {
  for (size_t end = key.size(); !place_.empty() && end != std::string::npos && end > 0;
       end = key.rfind('/', end - 1)) {
    const auto found = place_.find(key.substr(0, end));
    if (found == place_.end()) continue;
    if (!found->second) return std::nullopt;
    return *found->second + key.substr(end);
  }
  return key;
}

FSListingPtr FSTransit::ListingAt(const std::string& key) const {
  if (const auto own = own_.find(key); own != own_.end()) return own->second.listing;
  const std::optional<std::string> place = PlaceOf(key);
  return place ? tree_.Listing(*place) : nullptr;
}

FSListingPtr FSTransit::OwnListing(const std::string& key) const {
  const auto own = own_.find(key);
  return own == own_.end() ? nullptr : own->second.listing;
}

// Whether the folder is one of its parent's.
bool FSTransit::IsListedFolder(const std::string& key) const {
  if (key == tree_.rootPath) return true;
  const FSListingPtr parent = ListingAt(std::string(FSTree::ParentOf(key)));
  if (parent == nullptr) return false;
  const FSEntries entries = parent->entries();
  for (uint32_t i = 0; i < entries.count(); ++i) {
    if (entries.isFolder(i) && entries.name(i) == FSTree::NameOf(key)) return true;
  }
  return false;
}

FSTransit::Known FSTransit::LookUp(const std::string& key, bool isPresent) const {
  if (const auto own = own_.find(key); own != own_.end()) return {own->second.listing, false};
  const std::optional<std::string> place = PlaceOf(key);
  const FSListingPtr listing = place ? tree_.Listing(*place) : nullptr;
  if (listing != nullptr && !(tree_.IsUnknown(*place) && isPresent)) return {listing, false};
  if (listing == nullptr && IsListedFolder(key)) return {emptyListing(), false};
  const auto detached = detached_.find(key);
  return {detached != detached_.end() ? detached->second.listing : emptyListing(), true};
}

void FSTransit::SetCompared(const std::string& key, const Known& known, FSListingPtr listing,
                            const FSLook& look) {
  const FSReading reading = look.reading;
  const bool isNew = own_.contains(key);
  (known.isDetached ? detached_ : own_)[key] = {std::move(listing), true, look};
  compared_.push_back(key);
  const std::optional<std::string> place = PlaceOf(key);
  if (!place) return;
  tree_.NoteReading(*place, reading);
  if (tree_.Listing(*place) == nullptr) {
    // One whose record is still to be emitted is in doubt from then on.
    if (known.isDetached || isNew || !isReadable(reading)) return;
    tree_.SetListing(*place, emptyListing());
  }
  Doubt(*place, key, reading);
}

void FSTransit::SetUnread(const std::string& key, FSReading reading) {
  const std::optional<std::string> place = PlaceOf(key);
  if (!place) return;
  const bool isRetried = tree_.retries.contains(*place);
  if (reading != FSReading::absent && !isRetried && tree_.Listing(*place) == nullptr &&
      !IsListedFolder(key)) {
    return;
  }
  tree_.NoteReading(*place, reading);
  if (tree_.Listing(*place) != nullptr) Doubt(*place, key, reading);
}

// The folder has been compared or scanned. What can be read stays in doubt until it is found to
// agree, and what is not there until it is known where it is; the rest is read again at its own
// time.
void FSTransit::Doubt(const std::string& place, const std::string& key, FSReading reading) {
  if (reading == FSReading::denied || reading == FSReading::failed) {
    tree_.doubt.erase(place);
    return;
  }
  tree_.doubt.insert(place);
  if (reading == FSReading::absent) waiting_.insert(key);
}

void FSTransit::AddFolder(const std::string& path) {
  if (ListingAt(path) == nullptr) own_[path] = {emptyListing()};
}

void FSTransit::RemoveFolder(const std::string& path) {
  for (auto* folders : {&own_, &detached_}) {
    eachAtAndBelow(*folders, path, [&](auto at) { folders->erase(at); });
  }
  eachAtAndBelow(place_, path, [&](auto at) { place_.erase(at); });
  place_[path] = std::nullopt;
}

// What has been compared at the old place was compared as another folder.
void FSTransit::MoveFolder(const std::string& oldPath, const std::string& path) {
  const auto moved = [&](const std::string& key) { return path + key.substr(oldPath.size()); };
  const std::optional<std::string> place = PlaceOf(oldPath);
  std::vector<std::pair<std::string, FSListingPtr>> folders;
  eachAtAndBelow(own_, oldPath,
                 [&](auto at) { folders.emplace_back(moved(at->first), at->second.listing); });
  std::vector<std::pair<std::string, std::optional<std::string>>> places;
  eachAtAndBelow(place_, oldPath, [&](auto at) {
    if (at->first != oldPath) places.emplace_back(moved(at->first), at->second);
  });
  RemoveFolder(path);
  RemoveFolder(oldPath);
  place_[path] = place;
  for (auto& [key, where] : places) place_[key] = std::move(where);
  for (auto& [key, listing] : folders) own_[key] = {std::move(listing)};
}

void FSTransit::SetScanned(const std::string& key, FSListingPtr listing, const FSLook& look) {
  tree_.NoteReading(key, look.reading);
  Doubt(key, key, look.reading);
  if (isReadable(look.reading)) own_[key] = {std::move(listing), true, look};
}

void FSTransit::Clear() {
  own_.clear();
  place_.clear();
  detached_.clear();
  compared_.clear();
}

FSChangeList FSTransit::Settle() {
  for (const FSChangedResource& record : records) {
    // Files are in the listing that is taken over below.
    const auto own = own_.find(FSTree::ParentOf(record.path));
    if (!record.isFolder && own != own_.end() && own->second.isFound) continue;
    if (record.action == "delete") {
      tree_.Take(record.path);
    } else if (record.action == "rename") {
      tree_.Rename(record.oldPath, record.path, record.status());
    } else {
      tree_.Put(record.path, record.status());
    }
  }
  tree_.FinishDrafts();
  for (const auto& [key, own] : own_) {
    if (!own.isFound || tree_.Listing(key) == nullptr) continue;
    tree_.SetListing(key, own.listing);
    tree_.doubt.erase(key);
  }
  Clear();
  return std::exchange(records, {});
}

std::vector<std::string> FSTransit::Check() {
  FSTree::Replaced replaced;
  std::map<std::string, FSListingPtr> agreeing;
  std::vector<std::string> empty;  // unknown and gone
  for (const auto* folders : {&own_, &detached_}) {
    for (const auto& [key, own] : *folders) {
      if (!own.isFound || tree_.Listing(key) == nullptr) continue;
      const bool agrees = tree_.Agrees(key, own.listing->entries(), replaced);
      if (agrees && isReadable(own.look.reading) && !tree_.IsUnknown(key)) {
        agreeing[key] = own.listing;
      } else if (agrees && own.look.reading == FSReading::absent && tree_.IsUnknown(key)) {
        empty.push_back(key);
      } else if (!agrees && isReadable(own.look.reading)) {
        tree_.doubt.insert(key);
      }
    }
  }
  // The comparison was of a folder that has moved or gone since. Another may be here by now.
  for (const std::string& key : compared_) {
    if (FindFound(key) == nullptr && tree_.Listing(key) != nullptr) tree_.doubt.insert(key);
  }
  // Another folder in the place of one. Unless it has been read itself, it is compared with the
  // next events, which name it if anything is to be found.
  for (const auto& [key, identity] : replaced) {
    const Own* const own = FindFound(key);
    if (own != nullptr && own->look.folder == identity) continue;
    agreeing.erase(key);
    if (!Utility::isAllowedPath(key + "/")) continue;
    tree_.doubt.insert(key);
    waiting_.insert(key);
  }
  for (auto& [key, listing] : agreeing) {
    tree_.doubt.erase(key);
    tree_.SetListing(key, std::move(listing));
  }
  tree_.FinishDrafts();
  for (const std::string& key : empty) tree_.Forget(key);
  Clear();
  return NextPass();
}

const FSTransit::Own* FSTransit::FindFound(const std::string& key) const {
  for (const auto* folders : {&own_, &detached_}) {
    const auto found = folders->find(key);
    if (found != folders->end() && found->second.isFound) return &found->second;
  }
  return nullptr;
}

// An unknown folder that is there waits until the folder above tells of it.
std::vector<std::string> FSTransit::NextPass() {
  std::vector<std::string> next;
  for (const std::string& key : tree_.doubt) {
    if (waiting_.contains(key) || !Utility::isAllowedPath(key + "/")) continue;
    if (tree_.IsUnknown(key)) {
      const FSResourcePtr now = FSTree::GetResource(key);
      if (now != nullptr && now->isFolder) continue;
    }
    next.push_back(key);
  }
  return next;
}
