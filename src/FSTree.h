// The snapshot: the picture of the watched tree that a reader has who applies every record by the
// rules in docs/records.md. A scan of the whole tree fills it. After that it changes where a record
// is emitted, by those rules, and nowhere else (Put, Take, Rename); so it is the reader's picture
// whatever the disk does meanwhile. What the comparisons of a running callback find is in FSTransit
// until then. A listing that agrees with the snapshot's is taken over for its order and attributes.
//
// One tree per process, owned by FSEventWatcher. Main thread only: no other thread reads what
// treeMutex guards.
//
// A folder's listing is here under the folder's path. Most folders are known: the listing of the
// folder above has them. A listing can also be of an unknown folder, when entries of it were
// reported before the folder itself was.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Backoff.h"
#include "FSByNames.h"
#include "FSChangeEvents.h"
#include "FSListing.h"
#include "FSResource.h"
#include "OpenFolder.h"
#include "ThreadSafety.h"

// How far a folder could be read.
enum class FSReading : uint8_t {
  whole,
  partial,  // some entries could not be read: the folder has to be read again
  absent,   // it does not exist, or is no folder: it counts as empty
  denied,   // not read, for lack of permission: it counts as empty too
  failed,   // not read, by a temporary failure: the contents are not known
};

inline FSReading readingOf(Failure failure) {
  if (failure == Failure::absent) return FSReading::absent;
  return failure == Failure::denied ? FSReading::denied : FSReading::failed;
}

inline bool isReadable(FSReading reading) {
  return reading == FSReading::whole || reading == FSReading::partial;
}

// The result of reading a folder.
struct FSLook {
  FSReading reading;
  FileIdentity folder;  // of the folder that was read; unknown where it could not be opened

  // Everything that was found has been reported. Not so where a comparison met both what came and
  // what went, and reported one side.
  bool isReported = true;

  // What the snapshot keeps of `folder`: unknown while something is left to report.
  FileIdentity identity() const { return isReported ? folder : FileIdentity(); }
};

// Names of a folder's entries, sorted, each once.
using FSNames = std::vector<std::string>;

// What a scan of a new folder asks and reports. The running callback's batch is one.
class FSScanListener {
 public:
  virtual ~FSScanListener() = default;

  // Whether a record still to be emitted concerns the path: a scan leaves that out.
  virtual bool IsPending(const std::string& path) = 0;

  // The listing that comparisons and scans of the pass have made of the folder, or null.
  virtual FSListingPtr OwnListing(const std::string& key) const = 0;

  // The scan has found an entry that is new to the reader.
  virtual void OnNew(const FSResource& entry) = 0;

  // The scan has read the folder, or could not open it.
  virtual void OnRead(const std::string& key, const FSListingPtr& listing, const FSLook& look) = 0;
};

class FSTree {
 public:
  // One folder of the snapshot. What records change in it is in the draft until the callback has
  // compared it with what was found. The draft of a large folder with few changes is kept longer,
  // so that each change does not copy the whole listing.
  struct Folder {
    FSListingPtr listing;
    std::unique_ptr<FSListingDraft> draft = nullptr;
    FileIdentity identity = {};  // of the folder that was read; unknown where it has not been,
                                 // or not everything has been reported
  };
  using Snapshot = std::map<std::string, Folder, std::less<>>;

  // Empties the tree and scans `path` into it, listing every entry when `showAll` is set. A final
  // "/" is left out, but for the path "/". The queue must outlive the tree.
  void InitWithPath(const std::string& path, FSChangeEvents& queue, bool showAll);
  void ClearSnapshot() EXCLUDES(treeMutex);
  void BuildSnapshot() EXCLUDES(treeMutex);

  // Whether the file's name ending is one that the tool ignores: the text from the last "." of the
  // path on.
  bool isProhibited(std::string_view path) const;

  // The record of what is at the path now, or null when it cannot be examined. Links are not
  // followed.
  static FSResourcePtr GetResource(const std::string& path);

  // Reads the folder and every folder below it into the snapshot. `listSync` queues a "sync" record
  // for every entry; `reportNew` queues a "create" record for every entry that is not saved yet,
  // and keeps those that are. A folder that cannot be opened gives two "error" lines, one that the
  // path filter refuses gives none.
  void DirSearch(const std::string& path, bool listSync, bool reportNew) EXCLUDES(treeMutex);

  // The same for a folder that has just been reported as new. `wasKnown`: the reader knew a folder
  // of this path before that. The listener reports what is new.
  void ScanNew(const std::string& path, bool listSync, bool wasKnown, FSScanListener& listener)
      EXCLUDES(treeMutex);

  // ---- Reading the disk.

  // Reads the folder of the key. `saved` is what is known of it: it is used for entries that a
  // temporary failure keeps from being read, which come last. `current` is cleared first; its
  // entries are in listing order, each name once, without what the tool ignores, what vanishes
  // meanwhile, what may not be read, and what is so deep that its path exceeds the limit.
  FSLook Read(const std::string& key, const FSEntries& saved, FSListingBuilder& current) const;

  // Whether the folder is large enough to be read by the names that have changed.
  bool IsLarge(const std::string& key);

  // Examines these names of the folder only, and returns the saved and the current entries of these
  // names. Nothing in any doubt: then the folder has to be read in full.
  struct Named {
    FSListingPtr saved, current;
    FSLook look;
  };
  std::optional<Named> ReadNames(const std::string& key, const FSNames& names) EXCLUDES(treeMutex);

  // ---- The snapshot as the reader's picture. Paths and keys are without a final "/", but for "/".

  // Whether the folder has a listing, and the listing; null when it has none.
  bool Has(std::string_view key) { return FolderAt(key) != nullptr; }
  FSListingPtr Listing(std::string_view key) EXCLUDES(treeMutex);

  // What the reader knows at the path; nothing when it knows nothing there.
  std::optional<FileStatus> Find(const std::string& path);

  // Whether the folder has a listing, but the reader does not know the folder.
  bool IsUnknown(std::string_view key) const { return unknown_.contains(key); }

  // The reader's rules: an entry is put in, with a listing of its own if it is a folder; what is at
  // the path is taken out, with all below it; what is at the old path is moved to the new one, with
  // all below it, and replaces what is there.
  void Put(const std::string& path, const FileStatus& status) EXCLUDES(treeMutex);
  void Take(const std::string& path) EXCLUDES(treeMutex);
  void Rename(const std::string& oldPath, const std::string& path, const FileStatus& status)
      EXCLUDES(treeMutex);

  // The paths of what the reader knows below a path at which it knows no folder: they are of
  // unknown folders. What is in a folder comes before the folder.
  std::vector<std::string> PathsBelow(const std::string& key) const;

  // Whether the folder's listing has the same entries, of the same kinds and, for files, with the
  // same seconds of modification. Adds to `replaced` the subfolders with another identity, each
  // with the identity that it has in `entries`. False when the folder has no listing.
  using Replaced = std::vector<std::pair<std::string, FileIdentity>>;
  bool Agrees(const std::string& key, const FSEntries& entries, Replaced& replaced);

  // The same for these names of the folder only. `entries` has those of them that exist.
  bool AgreesOn(const std::string& key, const FSNames& names, const FSEntries& entries,
                Replaced& replaced);

  // Removes the listing of an unknown folder; does nothing while the listing has entries.
  void Forget(const std::string& key) EXCLUDES(treeMutex);

  // Sets the folder's listing, whether or not it had one, and which folder it is of.
  void SetListing(const std::string& key, FSListingPtr listing, const FileIdentity& identity = {})
      EXCLUDES(treeMutex);

  // Takes over the attributes of these entries, on which AgreesOn is true, and notes that only
  // names of the folder have been examined. `isReported`: see FSLook; if not, the folder is read in
  // full the next time.
  void SetEntries(const std::string& key, const FSEntries& entries, bool isReported)
      EXCLUDES(treeMutex);

  // Makes listings of the drafts. Of large folders with few changes, a fixed number keep theirs.
  void FinishDrafts() EXCLUDES(treeMutex);

  // ---- Folders that have to be read again. Rename moves these with the folders, and Take removes
  // them.

  // Folders whose listing may be wrong: those that have been put and not been read yet, are
  // unknown, have been compared and not been found to agree yet, were replaced by another folder,
  // or may be readable at last. They are compared again at the end of a callback.
  std::set<std::string, std::less<>> doubt;

  // Folders that could not be read, or only in part, with and without listings, and when they are
  // to be read again. Where Rename moves one, it is in doubt instead.
  Backoff<std::string> retries;

  // Folders of which only some names have been examined since they were read in full. They are read
  // in full when they have come to rest, or after a minute, because some changes give no event.
  FSByNames byNames;

  // Keeps `retries` up to date with a reading of the folder.
  void NoteReading(const std::string& key, FSReading reading) EXCLUDES(treeMutex);

  // The folder's attributes have changed. If it could not be read, it may be readable now: it is
  // compared again. Returns whether it could not be read.
  bool ReadAgain(const std::string& key) EXCLUDES(treeMutex);

  // ---- Records of single folders, for programs that use the tree as a library. The tool itself
  // uses none of these.

  // The folder's entries on the disk now, in listing order; empty when the folder cannot be read.
  // With or without a final "/".
  FSResourceArray GetCurrentResourceList(const std::string& folder) const;

  // The folder's saved entries; empty when it has no listing. The first takes the folder with its
  // final "/", the second without.
  FSResourceArray GetSavedResourceList(const std::string& folderWithSlash) const;
  FSResourceArray GetSavedResourceList2(const std::string& folder) const;

  // Takes every entry with this path out of its folder's listing, and with `recursive` the listings
  // of the folder `path` and of all folders below it.
  void DeleteSavedResourceList(const std::string& path, bool recursive) EXCLUDES(treeMutex);

  // Appends the record to the folder's listing, if it has one; a folder gets an empty listing of
  // its own.
  void AddDirResource(const std::string& folder, const FSResourcePtr& resource) EXCLUDES(treeMutex);

  // Replaces the folder's listing by the entries, or takes out what has the resource's path.
  // Does nothing when it has none.
  void UpdateDir(const std::string& folder, const FSResourceArray& entries) EXCLUDES(treeMutex);
  void DeleteDirResource(const std::string& folder, const FSResource& resource) EXCLUDES(treeMutex);

  void ShowSavedResourceList() const {}

  // ---- Fields.

  // A folder of fewer entries is read in full even where few names have changed: that costs less
  // than to keep track of them. With 0 no folder is read in full for its size, nor for the number
  // of names.
  uint32_t fewestForNames = 256;

  // Called with each folder before the scan of the whole tree reads it, open or with the reason why
  // it cannot be opened; may be empty. It has to make sure that what changes in the folder from
  // then on is reported.
  std::function<void(const std::string& key, const OpenFolder& folder)> beforeScanning;

  FSChangeEvents* changes = nullptr;
  bool showAll = false;
  std::vector<std::string> prohibitedSuffixes;
  std::string rootPath;  // as passed to InitWithPath, without a final "/"
  Snapshot snapshot;     // by folder path; only the tree's own operations change it, listings
                         // under treeMutex
  Mutex treeMutex;

 private:
  // Whether `some` of a folder's entries are few enough to be handled one by one.
  bool AreFew(size_t some, uint32_t entries) const {
    return entries >= fewestForNames && (fewestForNames == 0 || some <= entries / 4);
  }

  void SetProhibitedSuffixes();
  static FileIdentity IdentityOf(const OpenFolder& folder);
  FSReading ReadFolder(const OpenFolder& folder, const std::string& path, const FSEntries& saved,
                       FSListingBuilder& current) const;
  void ScanFolder(const std::string& path, OpenFolder folder, const FileIdentity& identity,
                  bool listSync, int depth) EXCLUDES(treeMutex);
  void ReportUnreadable(const std::string& path, int error) EXCLUDES(treeMutex);
  void QueueSync(const std::string& path, const FSEntries& entries) EXCLUDES(treeMutex);

  Folder* FolderAt(std::string_view key);
  FSListingPtr KnownListing(std::string_view key) const;
  FSListingDraft& DraftOf(Folder& folder);
  void Finish(Folder& folder);
  void Drop(Folder& folder);
  Folder& EnterFolder(const std::string& key);
  void PutEntry(const std::string& path, const FileStatus& status);
  std::optional<FileStatus> TakeEntry(const std::string& path);
  void TakeAllAt(const std::string& path);
  void EraseAtAndBelow(const std::string& path);
  void MoveAtAndBelow(const std::string& from, const std::string& to);
  void Rebuild(const std::string& key, const FSResourceList& entries);

  std::set<std::string, std::less<>> unknown_;  // keys of the snapshot whose folders are unknown
  Snapshot::value_type* last_ = nullptr;        // what FolderAt found last
  std::unordered_set<Folder*> drafted_;         // folders of the snapshot that have drafts
  std::deque<Folder*> kept_;                    // those of them whose drafts are kept, oldest first
};
