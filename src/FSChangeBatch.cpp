#include "FSChangeBatch.h"

#include <algorithm>

#include "FSEventWatcher.h"

namespace {

bool isCreation(const FSChangedResource& record) { return record.action == "create"; }
bool isDeletion(const FSChangedResource& record) { return record.action == "delete"; }

// Whether the two records are what one move leaves in two folders. The same path twice is something
// that came and went, or went and came.
bool areHalves(const FSChangedResource& a, const FSChangedResource& b) {
  return ((isCreation(a) && isDeletion(b)) || (isDeletion(a) && isCreation(b))) && a.path != b.path;
}

}  // namespace

FSChangeBatch::FSChangeBatch(FSChangeList records)
    : records_(std::move(records)),
      hasFolders_(std::any_of(records_.begin(), records_.end(),
                              [](const FSChangedResource& record) { return record.isFolder; })),
      done_(records_.size(), false),
      earlierHalf_(records_.size(), kNone) {
  byINode_.reserve(records_.size());
  if (hasFolders_) FSEventWatcher::sTree->pending.reserve(records_.size());
  for (size_t i = 0; i < records_.size(); ++i) {
    byINode_.emplace_back(records_[i].inode, i);
    Expect(records_[i], 1);
  }
  std::sort(byINode_.begin(), byINode_.end());
}

std::vector<std::string> FSChangeBatch::Emit() {
  for (size_t i = 0; i < records_.size(); ++i) {
    if (done_[i]) continue;
    done_[i] = true;
    Expect(records_[i], -1);
    if (earlierHalf_[i] != kNone) {
      Expect(records_[earlierHalf_[i]], -1);
      EmitRename(records_[earlierHalf_[i]], records_[i]);
      continue;
    }
    if (!isCreation(records_[i]) && !isDeletion(records_[i])) {
      EmitRecord(records_[i]);
      continue;
    }
    const size_t partner = PartnerOf(i);
    if (partner == kNone) {
      EmitAlone(records_[i]);
    } else if (!SpokenOfBetween(i, partner, records_[partner])) {
      done_[partner] = true;
      Expect(records_[partner], -1);
      EmitRename(records_[i], records_[partner]);
    } else if (!SpokenOfBetween(i, partner, records_[i])) {
      earlierHalf_[partner] = i;
      Expect(records_[i], 1);
    } else {
      EmitAlone(records_[i]);
    }
  }
  return std::move(moved_);
}

void FSChangeBatch::EmitRecord(const FSChangedResource& record) {
  {
    const MutexLock lock(mainlock);
    FSEventWatcher::sChanges->Append(record);
  }
  FSEventWatcher::sTree->NoteTold(record);
  if (record.action == "rootcreate") RebuildSnapshot();
  if (record.action == "rootdelete") FSEventWatcher::sTree->ClearSnapshot();
}

// A new folder is scanned, unless a later record says that it went or moved again: the scan is then
// that record's.
void FSChangeBatch::EmitAlone(const FSChangedResource& record) {
  EmitRecord(record);
  FSTree& tree = *FSEventWatcher::sTree;
  if (record.isFolder && isCreation(record) && tree.SavedList(record.path.str()) != nullptr) {
    tree.DirSearch(record.path, false, true);
  }
}

void FSChangeBatch::EmitRename(const FSChangedResource& earlier, const FSChangedResource& later) {
  const FSChangedResource& deleted = isDeletion(earlier) ? earlier : later;
  const FSChangedResource& created = isDeletion(earlier) ? later : earlier;
  FSResourceList gone;
  if (deleted.saved != nullptr) gone = MoveSavedLists(*deleted.saved, created);
  FSChangedResource rename = earlier;
  rename.action = "rename";
  rename.path = created.path;
  rename.oldPath = deleted.path.text();
  EmitRecord(rename);
  for (const FSResourcePtr& folder : gone) EmitRecord(FSChangedResource("delete", *folder));
}

// Puts the lists to where the folder stands in the snapshot, which a later record may know under
// yet another name.
FSResourceList FSChangeBatch::MoveSavedLists(FSSavedLists& saved,
                                             const FSChangedResource& created) {
  FSTree& tree = *FSEventWatcher::sTree;
  std::string place = created.path;
  if (tree.HandOnLists(saved, place) || tree.SavedList(place) == nullptr) return {};
  if (place == created.path) tree.ForgetReplaced(place);
  FSResourceList gone = tree.PutSavedLists(saved, place, created.path);
  for (const auto& [key, entries] : saved.lists) {
    std::string newKey = FSTree::MovedPath(key, saved.path, place);
    if (tree.SavedList(newKey) != nullptr) moved_.push_back(std::move(newKey));
  }
  return gone;
}

void FSChangeBatch::RebuildSnapshot() {
  FSChangeEvents& changes = *FSEventWatcher::sChanges;
  changes.AppendOutput(changes.templates->Fill("scan", "begin"), true);
  FSEventWatcher::sTree->InitWithPath(_path, changes, _showAll);
  changes.AppendOutput(changes.templates->Fill("scan", "complete"), true);
}

// The first record after `position` that speaks of the same file, if it is the other half of a
// move; else kNone.
size_t FSChangeBatch::PartnerOf(size_t position) const {
  const FSChangedResource& record = records_[position];
  auto at = std::upper_bound(byINode_.begin(), byINode_.end(), std::pair(record.inode, position));
  for (; at != byINode_.end() && at->first == record.inode; ++at) {
    const FSChangedResource& other = records_[at->second];
    if (done_[at->second] || earlierHalf_[at->second] != kNone || !isSameFile(record, other)) {
      continue;
    }
    return areHalves(record, other) ? at->second : kNone;
  }
  return kNone;
}

// Whether a record between the two positions speaks of the record's place: the same path, a folder
// above it or, for a folder, anything below it.
bool FSChangeBatch::SpokenOfBetween(size_t from, size_t to, const FSChangedResource& record) {
  if (to - from < 2) return false;
  if (byPath_.empty()) IndexPaths();
  const std::string path = record.path;
  for (size_t end = path.size(); end != std::string::npos && end > 0;
       end = path.rfind('/', end - 1)) {
    if (StandsBetween(from, to, std::string_view(path).substr(0, end))) return true;
  }
  if (!record.isFolder) return false;
  const std::string below = path + "/";
  for (auto at = FirstSpokenOf(below, 0); at != byPath_.end() && at->first.starts_with(below);
       ++at) {
    if (at->second > from && at->second < to && !done_[at->second]) return true;
  }
  return false;
}

bool FSChangeBatch::StandsBetween(size_t from, size_t to, std::string_view path) const {
  auto at = FirstSpokenOf(path, from + 1);
  while (at != byPath_.end() && at->first == path && at->second < to) {
    if (!done_[at->second]) return true;
    ++at;
  }
  return false;
}

// The first path that is not before this one, told at this position or later.
FSChangeBatch::Mention FSChangeBatch::FirstSpokenOf(std::string_view path, size_t position) const {
  return std::lower_bound(byPath_.begin(), byPath_.end(), std::pair(path, position),
                          [](const auto& mention, const auto& wanted) {
                            return std::pair(std::string_view(mention.first), mention.second) <
                                   wanted;
                          });
}

void FSChangeBatch::IndexPaths() {
  for (size_t i = 0; i < records_.size(); ++i) {
    byPath_.emplace_back(records_[i].path, i);
    if (!records_[i].oldPath.empty()) byPath_.emplace_back(records_[i].oldPath, i);
  }
  std::sort(byPath_.begin(), byPath_.end());
}

// Keeps the tree's account of the paths that records still speak of.
void FSChangeBatch::Expect(const FSChangedResource& record, int change) {
  if (!hasFolders_) return;
  ExpectPath(record.path, isDeletion(record) ? nullptr : &record, change);
  if (!record.oldPath.empty()) ExpectPath(record.oldPath.view(), nullptr, change);
}

void FSChangeBatch::ExpectPath(const FSPath& path, const FSChangedResource* last, int change) {
  auto& pending = FSEventWatcher::sTree->pending;
  const auto at = pending.try_emplace(path).first;
  at->second.records += change;
  if (change > 0) at->second.last = last;
  if (at->second.records == 0) pending.erase(at);
}
