// The snapshot: the picture of the watched tree that a reader has who applies every record by the
// rules in docs/records.md. It changes where a record is emitted, by those rules, and nowhere else
// (Put, Take, Rename); so it is the reader's picture whatever the disk does meanwhile. What the
// comparisons of a running callback find stands in FSTransit until then.
//
// One tree per process, owned by FSEventWatcher. Main thread only; treeMutex guards nothing that
// another thread looks at today.
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
  partial,  // some of it will have to be read again; of that the listing has what is saved
  absent,   // it is not there, or is no folder: it counts as empty
  denied,   // for want of permission: likewise
  failed,   // by a failure that passes; this says nothing
};

inline FSReading readingOf(Failure failure) {
  if (failure == Failure::absent) return FSReading::absent;
  return failure == Failure::denied ? FSReading::denied : FSReading::failed;
}

inline bool isReadable(FSReading reading) {
  return reading == FSReading::whole || reading == FSReading::partial;
}

// What came of reading a folder.
struct FSLook {
  FSReading reading;
  FileIdentity folder;  // of the folder that was read
};

// Names of a folder's entries, sorted, each once.
using FSNames = std::vector<std::string>;

// What a scan of a new folder asks and reports. The running callback's batch is one.
class FSScanListener {
 public:
  virtual ~FSScanListener() = default;

  // Whether a record still to be emitted concerns what has the path: a scan leaves that out.
  virtual bool IsPending(const std::string& path) = 0;

  // The listing that comparisons have made of the folder, or null.
  virtual FSListingPtr OwnListing(const std::string& key) const = 0;

  // The scan has found an entry that is new to the reader.
  virtual void OnNew(const FSResource& entry) = 0;

  // The scan has read the folder, or could not open it.
  virtual void OnRead(const std::string& key, const FSListingPtr& listing, const FSLook& look) = 0;
};

class FSTree {
 public:
  // One folder of the snapshot. What records change in it is in the draft until the callback has
  // compared it with what was found. The draft of a large folder stays, so that a few changes cost
  // no more than themselves.
  struct Folder {
    FSListingPtr listing;
    std::unique_ptr<FSListingDraft> draft = nullptr;
    FileIdentity identity = {};  // of the folder that was read; unknown where it has not been
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

  // Reads the folder of the key. `saved` is what is known of it: it stands for entries that cannot
  // be read now. `current` is cleared first; its entries are in listing order, without what the
  // tool ignores, what vanishes meanwhile, what must not be looked at, and what lies so deep that
  // no path leads to it.
  FSLook Read(const std::string& key, const FSEntries& saved, FSListingBuilder& current) const;

  // Examines these names of the folder only, and gives those that are there, saved and current.
  // Nothing in any doubt: then the folder has to be read in full.
  struct Named {
    FSListingPtr saved, current;
    FSLook look;
  };
  std::optional<Named> ReadNames(const std::string& key, const FSNames& names) EXCLUDES(treeMutex);

  // ---- The snapshot as the reader's picture. Paths and keys are without a final "/", but for "/".

  // Whether the folder has a listing, and the listing; null when it has none.
  bool Has(std::string_view key) const { return snapshot.find(key) != snapshot.end(); }
  FSListingPtr Listing(std::string_view key) EXCLUDES(treeMutex);

  // What the reader knows to be at the path; nothing when there is nothing.
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

  // The paths of what the reader knows below an unknown folder, the deepest first.
  std::vector<std::string> PathsBelow(const std::string& key) const;

  // Whether the folder's listing has the same entries, of the same kinds and, as to files, with the
  // same seconds of modification. Adds to `replaced` the subfolders that are others by their
  // identity, which it gives. False when the folder has no listing.
  using Replaced = std::vector<std::pair<std::string, FileIdentity>>;
  bool Agrees(const std::string& key, const FSEntries& entries, Replaced& replaced) const;

  // The same for these names of the folder only. `entries` has those of them that are there.
  bool AgreesOn(const std::string& key, const FSNames& names, const FSEntries& entries,
                Replaced& replaced);

  // Forgets an unknown folder of which nothing is known any more.
  void Forget(const std::string& key) EXCLUDES(treeMutex);

  // Sets the folder's listing, whether or not it had one, and which folder it is of.
  void SetListing(const std::string& key, FSListingPtr listing, const FileIdentity& identity = {})
      EXCLUDES(treeMutex);

  // Takes these entries over, with which the folder's listing agrees.
  void SetEntries(const std::string& key, const FSEntries& entries) EXCLUDES(treeMutex);

  // Makes listings of the drafts, but for those of large folders with few changes.
  void FinishDrafts() EXCLUDES(treeMutex);

  // ---- What may be wrong, or cannot be read. Both go with the folders that Take and Rename move.

  // Folders whose listing may be wrong: those that have been put and not been read yet, that are
  // unknown, or have been compared and not found to agree. They are compared again.
  std::set<std::string, std::less<>> doubt;

  // Folders that could not be read, or not wholly, with and without listings, and when they are to
  // be read again.
  Backoff<std::string> retries;

  // Folders of which only some names have been examined since they were read in full. They are read
  // in full when they have come to rest, or after a minute, because some changes give no event.
  FSByNames byNames;

  // Notes how far the folder could be read.
  void NoteReading(const std::string& key, FSReading reading) EXCLUDES(treeMutex);

  // The folder's attributes have changed. If it could not be read, that may be otherwise now: it is
  // compared again. Whether that is so.
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
  // Nothing when it has none.
  void UpdateDir(const std::string& folder, const FSResourceArray& entries) EXCLUDES(treeMutex);
  void DeleteDirResource(const std::string& folder, const FSResource& resource) EXCLUDES(treeMutex);

  void ShowSavedResourceList() const {}

  // ---- Fields.

  // A folder of fewer entries is read in full even where few names have changed: that costs less
  // than to keep account of them. With 0 no folder is read in full for its size, nor for the number
  // of names.
  uint32_t fewestForNames = 256;

  // Called with each folder before the scan of the whole tree reads it, open or with the reason why
  // it cannot be opened; may be empty. What changes in it from then on is somebody else's to
  // notice.
  std::function<void(const std::string& key, const OpenFolder& folder)> beforeScanning;

  FSChangeEvents* changes = nullptr;
  bool showAll = false;
  std::vector<std::string> prohibitedSuffixes;
  std::string rootPath;  // as passed to InitWithPath, without a final "/"
  Snapshot snapshot;     // by folder path; written under treeMutex
  Mutex treeMutex;

 private:
  // Whether so many of a folder's entries are few enough to be treated by themselves.
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

  FSListingPtr KnownListing(std::string_view key) const;
  FSListingDraft& DraftOf(Folder& folder);
  void Finish(Folder& folder);
  void Drop(Folder& folder);
  void PutEntry(const std::string& path, const FileStatus& status);
  std::optional<FileStatus> TakeEntry(const std::string& path);
  void TakeAllAt(const std::string& path);
  void EraseAtAndBelow(const std::string& path);
  void MoveAtAndBelow(const std::string& from, const std::string& to);
  void Rebuild(const std::string& key, const FSResourceList& entries);

  std::set<std::string, std::less<>> unknown_;  // keys of the snapshot whose folders are unknown
  std::unordered_set<Folder*> drafted_;         // those of the snapshot that have drafts
  std::deque<Folder*> kept_;                    // those of them whose drafts stay, oldest first
};
