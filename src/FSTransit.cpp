#include "FSTransit.h"

#include <algorithm>
#include <utility>

#include "FSPaths.h"
#include "utility.h"

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

FSListingPtr FSTransit::ListingAt(const std::string& key) {
  MakeWhole(key);
  return UneditedListing(key);
}

// Like ListingAt, but where names of the folder were compared, the listing before that.
FSListingPtr FSTransit::UneditedListing(const std::string& key) const {
  if (const auto own = own_.find(key); own != own_.end()) return own->second.listing;
  const std::optional<std::string> place = PlaceOf(key);
  return place ? tree_.Listing(*place) : nullptr;
}

bool FSTransit::IsThere(const std::string& path) const {
  if (own_.contains(path)) return true;
  const std::optional<std::string> place = PlaceOf(path);
  return place && tree_.Has(*place);
}

bool FSTransit::IsCompared(const std::string& key, const FileIdentity& folder) const {
  const auto own = own_.find(key);
  return own != own_.end() && own->second.isFound && own->second.look.isReported &&
         own->second.look.reading == FSReading::whole && own->second.look.folder == folder;
}

// Makes a listing in own_ of the entries that were compared by their names and of the others as the
// snapshot has them.
void FSTransit::MakeWhole(const std::string& key) {
  const auto found = some_.find(key);
  if (found == some_.end()) return;
  const Some some = std::move(found->second);
  some_.erase(found);
  FSListingBuilder builder;
  const FSListingPtr saved = tree_.Listing(key);
  const FSEntries before = saved->entries(), entries = some.entries->entries();
  for (uint32_t i = 0; i < before.count(); ++i) {
    if (!std::binary_search(some.names.begin(), some.names.end(), before.name(i))) {
      builder.Add(before, i);
    }
  }
  for (uint32_t i = 0; i < entries.count(); ++i) builder.Add(entries, i);
  own_[key] = {builder.Finish(), true, some.look};
}

FSListingPtr FSTransit::OwnListing(const std::string& key) const {
  const auto own = own_.find(key);
  return own == own_.end() ? nullptr : own->second.listing;
}

// Whether the listing of the folder above has the folder.
bool FSTransit::IsListedFolder(const std::string& key) {
  if (key == tree_.rootPath) return true;
  const std::string parent(FSPaths::parentOf(key));
  const std::string_view name = FSPaths::nameOf(key);
  const auto some = some_.find(parent);
  const bool isCompared =
      some != some_.end() && std::ranges::binary_search(some->second.names, name);
  const FSListingPtr listing = isCompared ? some->second.entries : UneditedListing(parent);
  if (listing == nullptr) return false;
  const FSEntries entries = listing->entries();
  const FSListingIndex& byName =
      byName_.try_emplace(listing, entries, FSListingIndex::Key::name).first->second;
  const uint32_t at = byName.FirstNamed(name);
  return at != FSListingIndex::kNone && entries.isFolder(at);
}

FSTransit::Known FSTransit::LookUp(const std::string& key, bool isPresent) {
  MakeWhole(key);
  if (const auto own = own_.find(key); own != own_.end()) return {own->second.listing, false};
  const std::optional<std::string> place = PlaceOf(key);
  const FSListingPtr listing = place ? tree_.Listing(*place) : nullptr;
  if (listing != nullptr && !(tree_.IsUnknown(*place) && isPresent)) return {listing, false};
  if (listing == nullptr && IsListedFolder(key)) return {emptyListing(), false};
  const auto detached = detached_.find(key);
  return {detached != detached_.end() ? detached->second.listing : emptyListing(), true};
}

std::optional<FSTree::Named> FSTransit::LookUpNames(const std::string& key, const FSNames& names) {
  const auto before = some_.find(key);
  const bool isFirst = before == some_.end();
  if (!isFirst && before->second.names != names) return std::nullopt;
  if (own_.contains(key) || PlaceOf(key) != key || tree_.IsUnknown(key) ||
      (isFirst && tree_.doubt.contains(key))) {
    return std::nullopt;
  }
  std::optional<FSTree::Named> named = tree_.ReadNames(key, names);
  if (named && !isFirst) named->saved = before->second.entries;
  return named;
}

void FSTransit::SetComparedByNames(const std::string& key, const FSNames& names,
                                   FSListingPtr entries, const FSLook& look) {
  some_[key] = {names, std::move(entries), look};
  compared_.push_back(key);
  Doubt(key, key, look.reading);
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
  if (!tree_.Has(*place)) {
    // A folder whose record is still to be emitted is in doubt once it is emitted.
    if (known.isDetached || isNew || !isReadable(reading)) return;
    tree_.SetListing(*place, emptyListing());
  }
  Doubt(*place, key, reading);
}

void FSTransit::SetUnread(const std::string& key, FSReading reading) {
  const std::optional<std::string> place = PlaceOf(key);
  if (!place) return;
  const bool isRetried = tree_.retries.contains(*place);
  if (reading != FSReading::absent && !isRetried && !tree_.Has(*place) && !IsListedFolder(key)) {
    return;
  }
  tree_.NoteReading(*place, reading);
  if (tree_.Has(*place)) Doubt(*place, key, reading);
}

// The folder has been compared or scanned. One that could be read is in doubt until it is found to
// agree, one that does not exist until it is reported as gone or moved; the others are read again
// when their retry is due.
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
    FSPaths::eachAtAndBelow(*folders, path, [&](auto at) { folders->erase(at); });
  }
  FSPaths::eachAtAndBelow(some_, path, [&](auto at) { some_.erase(at); });
  FSPaths::eachAtAndBelow(place_, path, [&](auto at) { place_.erase(at); });
  place_[path] = std::nullopt;
}

// The listings move, but what was compared under the old path does not count as compared under the
// new one.
void FSTransit::MoveFolder(const std::string& oldPath, const std::string& path) {
  const auto moved = [&](const std::string& key) { return path + key.substr(oldPath.size()); };
  const std::optional<std::string> place = PlaceOf(oldPath);
  FSPaths::eachAtAndBelow(some_, oldPath, [&](auto at) { MakeWhole(std::string(at->first)); });
  std::vector<std::pair<std::string, FSListingPtr>> folders;
  FSPaths::eachAtAndBelow(
      own_, oldPath, [&](auto at) { folders.emplace_back(moved(at->first), at->second.listing); });
  std::vector<std::pair<std::string, std::optional<std::string>>> places;
  FSPaths::eachAtAndBelow(place_, oldPath, [&](auto at) {
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
  some_.clear();
  byName_.clear();
  compared_.clear();
}

FSChangeList FSTransit::Settle() {
  for (const FSChangedResource& record : records) {
    // The listing that is taken over below has the files.
    const auto own = own_.find(FSPaths::parentOf(record.path));
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
    if (!own.isFound || !tree_.Has(key)) continue;
    tree_.SetListing(key, own.listing, own.look.identity());
    tree_.doubt.erase(key);
  }
  Clear();
  return std::exchange(records, {});
}

std::vector<std::string> FSTransit::Check() {
  FSTree::Replaced replaced;
  CompareWithSnapshot(replaced);
  DoubtReplaced(replaced);
  TakeOver();
  Clear();
  return NextPass();
}

void FSTransit::CompareWithSnapshot(FSTree::Replaced& replaced) {
  for (auto* folders : {&own_, &detached_}) {
    for (auto& [key, own] : *folders) {
      if (FindRead(key) != &own || !tree_.Has(key)) continue;
      const bool agrees = tree_.Agrees(key, own.listing->entries(), replaced);
      if (agrees && isReadable(own.look.reading) && !tree_.IsUnknown(key)) {
        own.outcome = Outcome::agrees;
      } else if (agrees && own.look.reading == FSReading::absent && tree_.IsUnknown(key)) {
        own.outcome = Outcome::unknownAndGone;
      } else if (!agrees && isReadable(own.look.reading)) {
        tree_.doubt.insert(key);
      }
    }
  }
  for (auto& [key, some] : some_) {
    if (!tree_.Has(key)) continue;
    if (tree_.AgreesOn(key, some.names, some.entries->entries(), replaced)) {
      some.outcome = Outcome::agrees;
    } else {
      tree_.doubt.insert(key);
    }
  }
  // The comparison was of a folder that has moved or gone since. Another folder may be at this path
  // now.
  for (const std::string& key : compared_) {
    if (FindLook(key) == nullptr && tree_.Has(key)) tree_.doubt.insert(key);
  }
}

// Another folder is in the place of a known one. Unless it has been read itself, it is compared
// with the next events, which name it if it differs.
void FSTransit::DoubtReplaced(const FSTree::Replaced& replaced) {
  for (const auto& [key, identity] : replaced) {
    const FSLook* const look = FindLook(key);
    if (look != nullptr && look->folder == identity) continue;
    if (Own* const own = FindRead(key)) own->outcome = Outcome::none;
    if (const auto some = some_.find(key); some != some_.end()) {
      some->second.outcome = Outcome::none;
    }
    if (!Utility::isAllowedPath(key + "/")) continue;
    tree_.doubt.insert(key);
    waiting_.insert(key);
  }
}

void FSTransit::TakeOver() {
  for (const auto* folders : {&own_, &detached_}) {
    for (const auto& [key, own] : *folders) {
      if (own.outcome != Outcome::agrees) continue;
      tree_.doubt.erase(key);
      tree_.SetListing(key, own.listing, own.look.identity());
    }
  }
  for (const auto& [key, some] : some_) {
    if (some.outcome != Outcome::agrees) continue;
    tree_.doubt.erase(key);
    tree_.SetEntries(key, some.entries->entries(), some.look.isReported);
  }
  tree_.FinishDrafts();
  for (const auto* folders : {&own_, &detached_}) {
    for (const auto& [key, own] : *folders) {
      if (own.outcome == Outcome::unknownAndGone) tree_.Forget(key);
    }
  }
}

// What a reading of the whole folder in this pass has found; null when there was none.
FSTransit::Own* FSTransit::FindRead(const std::string& key) {
  for (auto* folders : {&own_, &detached_}) {
    const auto found = folders->find(key);
    if (found != folders->end() && found->second.isFound) return &found->second;
  }
  return nullptr;
}

// The result of reading the folder that is at the path, or names of it; null when it has not been
// read in this pass.
const FSLook* FSTransit::FindLook(const std::string& key) {
  if (const Own* const own = FindRead(key)) return &own->look;
  const auto found = some_.find(key);
  return found == some_.end() ? nullptr : &found->second.look;
}

// An unknown folder that exists is not compared until the folder above reports it.
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
