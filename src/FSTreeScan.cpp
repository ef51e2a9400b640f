// The directory scan.

#include <cstring>
#include <memory>
#include <utility>

#include "FSTree.h"
#include "utility.h"

namespace {

constexpr int kMostOpen = 32;  // folders held open on the way down

// Whether the list, indexed by inode, holds the file under any name.
bool holdsFile(const FSResourceList& list, const FSResourceIndex& byINode, const FSResource& file) {
  uint32_t at = byINode.FirstByINode(file.inode);
  while (at != FSResourceIndex::kNone && !isSameFile(*list[at], file)) at = byINode.NextByINode(at);
  return at != FSResourceIndex::kNone;
}

}  // namespace

struct FSTree::Scan {
  bool listSync;
  bool reportNew;
  int depth = 0;
};

void FSTree::DirSearch(const std::string& path, bool listSync, bool reportNew) {
  if (!Utility::isAllowedPath(path + "/")) return;
  ScanFolder(path, FSOpenFolder(path, path == rootPath), Scan{listSync, reportNew});
}

// The first folders on the way down stay open, so that those below them are quickly found. The
// others do not, so that the depth of a tree is not bound by the number of open files; nor in the
// scan of a new folder, where a folder is what stands at its path.
void FSTree::ScanFolder(const std::string& path, FSOpenFolder folder, Scan scan) {
  if (!folder.isOpen()) {
    ReportUnreadable(path, folder.error());
    return;
  }
  const auto place = snapshot.lower_bound(path);
  const bool isSaved = place != snapshot.end() && place->first == path;
  FSResourceList current;
  const Reading reading = ReadFolder(folder, path, isSaved ? &place->second : nullptr, current);
  if (reading == Reading::gone) return;
  std::vector<std::string> subfolders;
  for (const FSResourcePtr& entry : current) {
    if (entry->isFolder) subfolders.push_back(entry->path);
  }
  if (scan.listSync && !scan.reportNew) {
    for (const FSResourcePtr& entry : current) Queue("sync", *entry);
  }
  if (scan.reportNew) current = ReportEntries(path, current, scan);
  current.shrink_to_fit();
  {
    const MutexLock lock(treeMutex);
    snapshot.insert_or_assign(place, path, std::move(current));
    if (reading == Reading::whole) {
      unread.erase(path);
    } else {
      unread.insert(path);
    }
  }
  if (scan.reportNew || ++scan.depth > kMostOpen) folder.Close();
  for (const std::string& subfolder : subfolders) {
    if (scan.reportNew && (pending.contains(subfolder) || SavedList(subfolder) == nullptr))
      continue;
    if (!Utility::isAllowedPath(subfolder + "/")) continue;
    const char* const name = subfolder.c_str() + subfolder.rfind('/') + 1;
    ScanFolder(subfolder,
               folder.isOpen() ? FSOpenFolder(folder, name) : FSOpenFolder(subfolder, false), scan);
  }
}

void FSTree::ReportUnreadable(const std::string& path, int error) {
  const MutexLock lock(treeMutex);
  changes->AppendOutput(changes->templates->Fill("error", path), true);
  changes->AppendOutput(changes->templates->Fill("error", std::strerror(error)), true);
}

// Queues what the scan has to say of each entry, and gives the folder's new saved list: the saved
// records of what the reader knows already, be it still there or not, and the records of what is
// new.
FSResourceList FSTree::ReportEntries(const std::string& path, const FSResourceList& current,
                                     const Scan& scan) {
  const FSResourceList saved = GetSavedResourceList2(path).items;
  const FSResourceIndex savedByPath(saved, FSResourceIndex::Key::path);
  const FSResourceIndex savedByINode(saved, FSResourceIndex::Key::inode);
  std::vector<bool> kept(saved.size(), false);
  FSResourceList told;
  for (const FSResourcePtr& entry : current) {
    if (scan.listSync) Queue("sync", *entry);
    FSResourcePtr known;
    bool isNew = false;
    if (const uint32_t at = savedByPath.FirstByPath(entry->path); at != FSResourceIndex::kNone) {
      known = saved[at];
      kept[at] = true;
    } else {
      known = NewEntry(entry, saved, savedByINode);
      isNew = known == entry;
    }
    if (known == nullptr) continue;
    told.push_back(known);
    const bool hasList = entry->isFolder && SavedList(entry->path.str()) != nullptr;
    if (isNew && !hasList) Queue("create", *entry);
    if (known->isFolder) AddFolder(entry->path);
  }
  for (size_t i = 0; i < saved.size(); ++i) {
    if (!kept[i]) told.push_back(saved[i]);
  }
  return told;
}

// What the saved list is to hold of an entry that it does not hold under this name: the entry
// itself when it is new, what a pending record will tell of it, or nothing when a comparison has to
// find it.
FSResourcePtr FSTree::NewEntry(const FSResourcePtr& entry, const FSResourceList& saved,
                               const FSResourceIndex& savedByINode) const {
  if (const auto found = pending.find(entry->path); found != pending.end()) {
    const FSChangedResource* record = found->second.last;
    if (record == nullptr) return nullptr;
    auto told = std::make_shared<FSResource>(*record);
    told->oldPath = {};  // a rename's; what is saved has none
    return told;
  }
  return holdsFile(saved, savedByINode, *entry) ? nullptr : entry;
}

void FSTree::Queue(const char* action, const FSResource& resource) {
  const MutexLock lock(treeMutex);
  changes->Append(FSChangedResource(action, resource));
}
