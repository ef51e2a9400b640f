// The directory scan: of the whole tree into the snapshot, and of a folder that has been reported
// as new.

#include <cstring>
#include <utility>

#include "FSPaths.h"
#include "FSTree.h"
#include "utility.h"

namespace {

constexpr int kMostOpen = 32;  // folders held open on the way down

// Entries that need not be reported as new.
class KnownEntries {
 public:
  explicit KnownEntries(const FSListingPtr& listing)
      : listing_(listing != nullptr ? listing : emptyListing()),
        byName_(listing_->entries(), FSListingIndex::Key::name),
        files_(listing_->entries(), FSListingIndex::Key::identity) {}

  // Whether this entry is among them, under its name or another.
  bool Has(const FSEntries& entries, uint32_t position) const {
    if (HasKind(entries.name(position), entries.isFolder(position))) return true;
    return files_.FirstOf(entries.identity(position), entries.isFolder(position)) !=
           FSListingIndex::kNone;
  }

  // Whether an entry of this name and kind is among them.
  bool HasKind(std::string_view name, bool isFolder) const {
    const uint32_t at = byName_.FirstNamed(name);
    return at != FSListingIndex::kNone && listing_->entries().isFolder(at) == isFolder;
  }

 private:
  const FSListingPtr listing_;
  const FSListingIndex byName_, files_;
};

// Queues the records of what is new at once: for scans outside a callback.
class QueueingListener : public FSScanListener {
 public:
  explicit QueueingListener(FSTree& tree) : tree_(tree) {}

  bool IsPending(const std::string&) override { return false; }
  FSListingPtr OwnListing(const std::string&) const override { return nullptr; }
  void OnNew(const FSResource& entry) override {
    tree_.changes->Append("create", entry);
    tree_.Put(entry.path, entry.status());
  }
  void OnRead(const std::string& key, const FSListingPtr& listing, const FSLook& look) override {
    tree_.NoteReading(key, look.reading);
    if (!isReadable(look.reading)) return;
    if (!tree_.Has(key)) tree_.SetListing(key, emptyListing());
    FSTree::Replaced replaced;
    const bool agrees = tree_.Agrees(key, listing->entries(), replaced);
    tree_.FinishDrafts();
    if (agrees) tree_.SetListing(key, listing);
    if (agrees) {
      tree_.doubt.erase(key);
    } else {
      tree_.doubt.insert(key);
    }
  }

 private:
  FSTree& tree_;
};

}  // namespace

void FSTree::DirSearch(const std::string& path, bool listSync, bool reportNew) {
  if (!Utility::isAllowedPath(path + "/")) return;
  if (!reportNew) {
    OpenFolder folder(path, path == rootPath);
    const FileIdentity identity = folder.isOpen() ? IdentityOf(folder) : FileIdentity();
    ScanFolder(path, std::move(folder), identity, listSync, 0);
    return;
  }
  QueueingListener listener(*this);
  ScanNew(path, listSync, true, listener);
}

// The first folders on the way down stay open, so that those below them are quickly found. The
// others do not, so that the limit of open files does not limit the depth of a tree.
void FSTree::ScanFolder(const std::string& path, OpenFolder folder, const FileIdentity& identity,
                        bool listSync, int depth) {
  if (beforeScanning) beforeScanning(path, folder);
  if (!folder.isOpen()) {
    ReportUnreadable(path, folder.error());
    if (folder.failure() != Failure::absent) NoteReading(path, FSReading::failed);
    return;
  }
  FSListingBuilder current;
  const FSReading reading = ReadFolder(folder, path, {}, current);
  if (reading == FSReading::absent) return;
  NoteReading(path, reading);
  const FSListingPtr listing = current.Finish();
  if (listSync) QueueSync(path, listing->entries());
  SetListing(path, listing, identity);
  if (depth >= kMostOpen) folder.Close();
  const FSEntries entries = listing->entries();
  for (uint32_t i = 0; i < entries.count(); ++i) {
    if (!entries.isFolder(i)) continue;
    const std::string subfolder = FSPaths::join(path, entries.name(i));
    if (!Utility::isAllowedPath(subfolder + "/")) continue;
    OpenFolder below =
        folder.isOpen() ? OpenFolder(folder, std::string(entries.name(i))) : OpenFolder(subfolder);
    if (folder.isOpen() && below.failure() == Failure::passing) {
      // Possibly for lack of descriptors.
      folder.Close();
      below = OpenFolder(subfolder);
    }
    ScanFolder(subfolder, std::move(below), entries.identity(i), listSync, depth + 1);
  }
}

void FSTree::QueueSync(const std::string& path, const FSEntries& entries) {
  const MutexLock lock(treeMutex);
  for (uint32_t i = 0; i < entries.count(); ++i) {
    changes->Append("sync", FSResource(entries.status(i), FSPaths::join(path, entries.name(i))));
  }
}

void FSTree::ReportUnreadable(const std::string& path, int error) {
  const MutexLock lock(treeMutex);
  changes->AppendOutput(changes->templates->Fill("error", path), true);
  changes->AppendOutput(changes->templates->Fill("error", std::strerror(error)), true);
}

void FSTree::ScanNew(const std::string& path, bool listSync, bool wasKnown,
                     FSScanListener& listener) {
  if (!Utility::isAllowedPath(path + "/")) return;
  FSListingBuilder current;
  OpenFolder folder(path, path == rootPath);
  if (!folder.isOpen()) ReportUnreadable(path, folder.error());
  const FSLook look = folder.isOpen()
                          ? FSLook{ReadFolder(folder, path, {}, current), IdentityOf(folder)}
                          : FSLook{readingOf(folder.failure()), {}};
  folder.Close();
  const FSListingPtr listing = current.Finish();
  if (!isReadable(look.reading)) {
    listener.OnRead(path, listing, look);
    return;
  }
  const KnownEntries own(listener.OwnListing(path));
  const KnownEntries known(wasKnown ? KnownListing(path) : nullptr);
  const FSEntries entries = listing->entries();
  // An entry that the reader knows with the other kind is left to a comparison, with all below it.
  const auto isOtherKind = [&](uint32_t position) {
    return known.HasKind(entries.name(position), !entries.isFolder(position));
  };
  for (uint32_t i = 0; i < entries.count(); ++i) {
    const FSResource entry(entries.status(i), FSPaths::join(path, entries.name(i)));
    if (listSync) changes->Append("sync", entry);
    if (listener.IsPending(entry.path) || own.Has(entries, i) || known.Has(entries, i) ||
        isOtherKind(i)) {
      continue;
    }
    if (!entry.isFolder || listener.OwnListing(entry.path) == nullptr) listener.OnNew(entry);
  }
  listener.OnRead(path, listing, look);
  for (uint32_t i = 0; i < entries.count(); ++i) {
    if (!entries.isFolder(i) || isOtherKind(i)) continue;
    const std::string subfolder = FSPaths::join(path, entries.name(i));
    if (listener.IsPending(subfolder)) continue;
    ScanNew(subfolder, listSync, known.HasKind(entries.name(i), true), listener);
  }
}
