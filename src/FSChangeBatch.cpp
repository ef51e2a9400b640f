#include "FSChangeBatch.h"

#include <algorithm>

#include "FSPaths.h"

namespace {

bool isCreation(const FSChangedResource& record) { return record.action == "create"; }
bool isDeletion(const FSChangedResource& record) { return record.action == "delete"; }

// Whether one of the paths is at or below the other.
bool areNested(const std::string& a, const std::string& b) {
  const std::string& shorter = a.size() < b.size() ? a : b;
  const std::string& longer = a.size() < b.size() ? b : a;
  return longer.starts_with(shorter) &&
         (longer.size() == shorter.size() || longer[shorter.size()] == '/');
}

bool isSameFile(const FSResource& a, const FSResource& b) {
  return a.isFolder == b.isFolder && a.status().identity == b.status().identity;
}

// Whether the two records are what one move leaves in two folders. The same path twice is something
// that appeared and disappeared, or the reverse; and nothing moves below itself.
bool areHalves(const FSChangedResource& a, const FSChangedResource& b) {
  return ((isCreation(a) && isDeletion(b)) || (isDeletion(a) && isCreation(b))) &&
         !areNested(a.path, b.path);
}

// Whether a reader that knows the one needs no record of the other.
bool haveSameAttributes(const FileStatus& known, const FileStatus& status) {
  return known.identity == status.identity && known.isFolder == status.isFolder &&
         known.modified.tv_sec == status.modified.tv_sec &&
         known.created.tv_sec == status.created.tv_sec && known.size == status.size;
}

}  // namespace

FSChangeBatch::FSChangeBatch(FSTree& tree, FSChangeEvents& changes, FSTransit& transit)
    : tree_(tree),
      changes_(changes),
      transit_(transit),
      records_(std::exchange(transit.records, {})),
      isEmitted_(records_.size(), false),
      earlierHalf_(records_.size(), kNone) {
  byINode_.reserve(records_.size());
  for (size_t i = 0; i < records_.size(); ++i) byINode_.emplace_back(records_[i].inode, i);
  std::sort(byINode_.begin(), byINode_.end());
}

void FSChangeBatch::Emit() {
  for (size_t i = 0; i < records_.size(); ++i) {
    if (isEmitted_[i]) continue;
    if (earlierHalf_[i] != kNone) {
      isEmitted_[i] = isEmitted_[earlierHalf_[i]] = true;
      EmitHalves(records_[earlierHalf_[i]], records_[i]);
      continue;
    }
    const size_t partner = PartnerOf(i);
    if (partner == kNone) {
      isEmitted_[i] = true;
      EmitAlone(records_[i]);
    } else if (!IsConcernedBetween(i, partner, records_[partner])) {
      isEmitted_[i] = isEmitted_[partner] = true;
      EmitHalves(records_[i], records_[partner]);
    } else if (!IsConcernedBetween(i, partner, records_[i])) {
      earlierHalf_[partner] = i;
    } else {
      isEmitted_[i] = true;
      EmitAlone(records_[i]);
    }
  }
}

void FSChangeBatch::EmitAlone(const FSChangedResource& record) {
  if (isDeletion(record)) {
    EmitDeletion(record);
  } else if (isCreation(record)) {
    EmitCreation(record);
  } else if (record.action == "rename") {
    EmitRename(record);
  } else if (record.action == "change") {
    const std::optional<FileStatus> known = tree_.Find(record.path);
    if (known && !known->isFolder) {
      tree_.Put(record.path, record.status());
      Queue("change", record);
    } else {
      EmitCreation(record);
    }
  } else {
    EmitRoot(record);
  }
}

void FSChangeBatch::EmitHalves(const FSChangedResource& earlier, const FSChangedResource& later) {
  const FSChangedResource& deleted = isDeletion(earlier) ? earlier : later;
  const FSChangedResource& created = isDeletion(earlier) ? later : earlier;
  FSResource renamed(earlier.status(), created.path);
  renamed.oldPath = deleted.path;
  EmitRename(renamed);
  // The attributes are those of the earlier half. A write besides has its own record.
  const std::optional<FileStatus> known = tree_.Find(created.path);
  if (!created.isFolder && earlier.modified.tv_sec != later.modified.tv_sec && known &&
      !known->isFolder) {
    tree_.Put(created.path, created.status());
    Queue("change", created);
  }
}

// The deletion of what the reader does not have is left out.
void FSChangeBatch::EmitDeletion(const FSResource& gone) {
  const std::optional<FileStatus> known = tree_.Find(gone.path);
  if (!known || known->isFolder != gone.isFolder) return;
  tree_.Take(gone.path);
  Queue("delete", gone);
}

// A new folder is scanned, unless a comparison has read it already or a later record removes or
// moves it: where it is moved to, it is in doubt, and compared in the next pass.
void FSChangeBatch::EmitCreation(const FSResource& created) {
  const std::optional<FileStatus> known = tree_.Find(created.path);
  const bool needsRecord = !known || !haveSameAttributes(*known, created.status());
  if (needsRecord && !Insert(created, known)) return;
  if (created.isFolder && transit_.IsThere(created.path) &&
      !transit_.IsCompared(created.path, created.status().identity)) {
    tree_.ScanNew(created.path, false, known && known->isFolder, *this);
  }
}

// What the reader does not have at the old path is created at the new one. A folder that it has at
// the new path is deleted first: readers replace a file by themselves, but a folder has contents to
// remove.
void FSChangeBatch::EmitRename(const FSResource& renamed) {
  const std::optional<FileStatus> known = tree_.Find(renamed.oldPath);
  if (!known || known->isFolder != renamed.isFolder) {
    EmitCreation(renamed);
    return;
  }
  if (IsBelowFile(renamed.path)) return;
  const std::optional<FileStatus> replaced = tree_.Find(renamed.path);
  if (replaced && replaced->isFolder) EmitDeletion({*replaced, renamed.path});
  DeleteBelow(renamed.path);
  tree_.Rename(renamed.oldPath, renamed.path, renamed.status());
  Queue("rename", renamed);
}

void FSChangeBatch::EmitRoot(const FSChangedResource& record) {
  Queue(record.action.c_str(), record);
  transit_.Clear();
  if (record.action == "rootdelete") {
    tree_.ClearSnapshot();
    return;
  }
  changes_.AppendOutput(changes_.templates->Fill("scan", "begin"), true);
  tree_.InitWithPath(_path, changes_, _showAll);
  changes_.AppendOutput(changes_.templates->Fill("scan", "complete"), true);
}

void FSChangeBatch::Queue(const char* action, const FSResource& resource) {
  const MutexLock lock(mainlock);
  changes_.Append(action, resource);
}

// Reports the entry as created, where the reader knows this at its path. Returns false and does
// nothing where the reader has a file above it.
bool FSChangeBatch::Insert(const FSResource& created, const std::optional<FileStatus>& known) {
  if (IsBelowFile(created.path)) return false;
  if (known && known->isFolder != created.isFolder) EmitDeletion({*known, created.path});
  if (!created.isFolder) DeleteBelow(created.path);
  tree_.Put(created.path, created.status());
  Queue("create", created);
  return true;
}

// Reports what the reader has below the path as deleted. REQUIRES: no known folder is at the path;
// the entries are of unknown folders, and would stay for good.
void FSChangeBatch::DeleteBelow(const std::string& path) {
  for (const std::string& below : tree_.PathsBelow(path)) {
    if (const std::optional<FileStatus> known = tree_.Find(below)) EmitDeletion({*known, below});
  }
}

// Whether the reader has a file at one of the paths above. The search ends at the first known
// folder: that is in another folder, and so on.
bool FSChangeBatch::IsBelowFile(std::string_view path) {
  for (std::string_view above = FSPaths::parentOf(path); above.size() > tree_.rootPath.size();
       above = FSPaths::parentOf(above)) {
    if (tree_.Has(above) && !tree_.IsUnknown(above)) return false;
    const std::optional<FileStatus> known = tree_.Find(std::string(above));
    if (known) return !known->isFolder;
  }
  return false;
}

// The first record after `position` that concerns the same file, if it is the other half of a move;
// else kNone.
size_t FSChangeBatch::PartnerOf(size_t position) const {
  const FSChangedResource& record = records_[position];
  if (!isCreation(record) && !isDeletion(record)) return kNone;
  auto at = std::upper_bound(byINode_.begin(), byINode_.end(), std::pair(record.inode, position));
  for (; at != byINode_.end() && at->first == record.inode; ++at) {
    const FSChangedResource& other = records_[at->second];
    if (isSameFile(record, other)) return areHalves(record, other) ? at->second : kNone;
  }
  return kNone;
}

// Whether a record between the two positions concerns the record's path: the same path, a folder
// above it or, for a folder, anything below it.
bool FSChangeBatch::IsConcernedBetween(size_t from, size_t to, const FSChangedResource& record) {
  if (to - from < 2) return false;
  IndexPaths();
  const std::string_view path = record.path;
  for (size_t end = path.size(); end != std::string::npos && end > 0;
       end = path.rfind('/', end - 1)) {
    if (IsBetween(from, to, path.substr(0, end))) return true;
  }
  if (!record.isFolder) return false;
  const std::string below = record.path + "/";
  for (auto at = FirstAt(below, 0); at != byPath_.end() && at->first.starts_with(below); ++at) {
    if (at->second > from && at->second < to && !isEmitted_[at->second]) return true;
  }
  return false;
}

bool FSChangeBatch::IsBetween(size_t from, size_t to, std::string_view path) const {
  auto at = FirstAt(path, from + 1);
  while (at != byPath_.end() && at->first == path && at->second < to) {
    if (!isEmitted_[at->second]) return true;
    ++at;
  }
  return false;
}

// The first element of byPath_ that is not before this path and position.
FSChangeBatch::PathPosition FSChangeBatch::FirstAt(std::string_view path, size_t position) const {
  return std::lower_bound(byPath_.begin(), byPath_.end(), std::pair(path, position));
}

void FSChangeBatch::IndexPaths() {
  if (!byPath_.empty()) return;
  byPath_.reserve(records_.size());
  for (size_t i = 0; i < records_.size(); ++i) {
    byPath_.emplace_back(records_[i].path, i);
    if (!records_[i].oldPath.empty()) byPath_.emplace_back(records_[i].oldPath, i);
  }
  std::sort(byPath_.begin(), byPath_.end());
}

// Whether a record still to be emitted, a half that waits included, concerns the path.
bool FSChangeBatch::IsPending(const std::string& path) {
  IndexPaths();
  for (auto at = FirstAt(path, 0); at != byPath_.end() && at->first == path; ++at) {
    if (!isEmitted_[at->second]) return true;
  }
  return false;
}

FSListingPtr FSChangeBatch::OwnListing(const std::string& key) const {
  return transit_.OwnListing(key);
}

void FSChangeBatch::OnNew(const FSResource& entry) { Insert(entry, tree_.Find(entry.path)); }

void FSChangeBatch::OnRead(const std::string& key, const FSListingPtr& listing,
                           const FSLook& look) {
  transit_.SetScanned(key, listing, look);
}
