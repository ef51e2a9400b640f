// The snapshot: what the watched tree looked like when each folder was last compared or scanned,
// and the scan that fills and lists it. There is one tree per process, owned by FSEventWatcher.
//
// Main thread only; no other thread takes treeMutex today. The lists hold what the reader has been
// told: an entry stays until a record corrects it, whatever the disk holds meanwhile. That is why a
// scan with `reportNew` keeps saved records, and why the lists of a folder that moves go with it
// instead of being read again.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "FSChangeEvents.h"
#include "FSOpenFolder.h"
#include "FSResource.h"
#include "ThreadSafety.h"

// Saved lists taken out of the snapshot: those of the folder `path` and of every folder below it,
// by their keys.
struct FSSavedLists {
  std::string path;
  std::vector<std::pair<std::string, FSResourceList>> lists;
  std::vector<std::string> unread;  // those of the keys that are in FSTree::unread
  std::string newPath;              // where they have been put in again; empty until then
};

class FSTree {
 public:
  using Snapshot = std::map<std::string, FSResourceList, std::less<>>;

  // Empties the tree and scans `path` into it, listing every entry when `showAll` is set. A final
  // "/" is left out, but for the path "/". The queue must outlive the tree.
  void InitWithPath(const std::string& path, FSChangeEvents& queue, bool showAll);
  void ClearSnapshot() EXCLUDES(treeMutex);
  void BuildSnapshot() EXCLUDES(treeMutex);

  // Whether the file's name ending is one that the tool ignores: the text from the last "." of the
  // path on.
  bool isProhibited(std::string_view path) const;

  // The record of what stands at the path now, or null when it cannot be examined. Links are not
  // followed.
  static FSResourcePtr GetResource(const std::string& path);

  // The folder's entries on the disk now, in listing order; empty when the folder cannot be read.
  // With or without a final "/".
  FSResourceArray GetCurrentResourceList(const std::string& folder) const;

  // The same without a final "/", and whether the folder and all its entries could be read.
  bool ReadCurrentList(const std::string& key, FSResourceList& entries) const;

  // The folder's saved entries; empty when it has no saved list. The first takes the folder with
  // its final "/", the second without.
  FSResourceArray GetSavedResourceList(const std::string& folderWithSlash) const;
  FSResourceArray GetSavedResourceList2(const std::string& folder) const;

  // Takes every entry with this path out of its folder's saved list, and with `recursive` the saved
  // lists of the folder `path` and of all folders below it.
  void DeleteSavedResourceList(const std::string& path, bool recursive) EXCLUDES(treeMutex);

  // Appends the record to the folder's saved list, if it has one; a folder gets an empty list of
  // its own.
  void AddDirResource(const std::string& folder, const FSResourcePtr& resource) EXCLUDES(treeMutex);

  // Replaces the folder's saved list by copies of the entries, or of its records without those that
  // have the resource's path. Nothing when it has no saved list.
  void UpdateDir(const std::string& folder, const FSResourceArray& entries) EXCLUDES(treeMutex);
  void DeleteDirResource(const std::string& folder, const FSResource& resource) EXCLUDES(treeMutex);

  void ShowSavedResourceList() const {}

  // Reads the folder and every folder below it into the snapshot. `listSync` queues a "sync" record
  // for every entry; `reportNew` queues a "create" record for every entry that is not saved yet,
  // and keeps the records of those that are. A folder that cannot be opened gives two "error"
  // lines, one that the path filter refuses gives none.
  void DirSearch(const std::string& path, bool listSync, bool reportNew) EXCLUDES(treeMutex);

  // The rest serves the reconciliation and the pairing.

  // The key of a folder named with its final "/": without it, but for "/" itself.
  static std::string KeyOf(const std::string& folderWithSlash);

  // The reverse, and the key of the folder that holds what has the path.
  static std::string FolderOf(const std::string& key);
  static std::string_view ParentOf(std::string_view path);

  // The new path of what stands at or below `from`, when that goes to `to`.
  static std::string MovedPath(const std::string& path, const std::string& from,
                               const std::string& to);

  // The saved list under the key, or null.
  const FSResourceList* SavedList(std::string_view key) const;

  // Whether the reader knows the folder: it stands in its parent's saved list.
  bool IsSavedFolder(const std::string& key) const;

  // Sets the list under the key, whether or not it had one.
  void SetSavedList(const std::string& key, FSResourceList entries) EXCLUDES(treeMutex);

  // Gives the folder an empty saved list if it has none, to be filled by the scan that follows its
  // record.
  void AddFolder(const std::string& key) EXCLUDES(treeMutex);

  // Takes the lists of the folder and of all below it out of the snapshot.
  std::shared_ptr<FSSavedLists> TakeSavedLists(const std::string& path) EXCLUDES(treeMutex);

  // Puts taken lists in again under the new path. What the snapshot holds there already comes
  // first. Returns, as they were under the new path, the folders whose names something else has
  // there: the reader has to be told that they are gone.
  // `toldPath` is the folder's new path in the records of the batch, which can be out of date where
  // a folder above it has moved on.
  FSResourceList PutSavedLists(FSSavedLists& saved, const std::string& newPath,
                               const std::string& toldPath) EXCLUDES(treeMutex);

  // A record that is handed on puts another folder in the place of what the reader knows under the
  // path: takes that out of the lists of the folder and of all below it, and leaves what pending
  // records will tell.
  void ForgetReplaced(const std::string& path) EXCLUDES(treeMutex);

  // Where the folder's own lists have been taken, in this callback, and not been put in again, adds
  // the lists to them. `path` follows the folder to where it stands by now.
  bool HandOnLists(const FSSavedLists& saved, std::string& path) EXCLUDES(treeMutex);

  // Notes what a comparison is about to tell of a folder that has no saved list, and what a record
  // that is handed on does to what has been told of such folders.
  void NoteCompared(const FSResourceList& entries);
  void NoteTold(const FSChangedResource& record) EXCLUDES(treeMutex);

  // Of what has been told of folders without a saved list, what the reader has to be told is gone:
  // it is not in the list that the folder has by now, or the folder is not there.
  FSChangeList TakeUntrue() EXCLUDES(treeMutex);

  // Forgets which lists have been taken, at the end of a callback.
  void ForgetTaken() { taken_.clear(); }

  // Notes whether a comparison could read the folder. Where its list has been taken, in this
  // callback, the note goes with the list.
  void NoteRead(const std::string& key, bool isRead) EXCLUDES(treeMutex);
  std::vector<std::string> Unread() const { return {unread.begin(), unread.end()}; }

  FSChangeEvents* changes = nullptr;
  bool showAll = false;
  std::vector<std::string> prohibitedSuffixes;
  std::string rootPath;  // as passed to InitWithPath, without a final "/"

  // Folder path to its direct entries, read and written by the main thread. Written under
  // treeMutex.
  Snapshot snapshot;
  Mutex treeMutex;

  // Keys of the snapshot whose folders could not be read, or not wholly, when they were last
  // compared or scanned,
  // or have been announced and not been read yet: a folder that moves while the callback is on its
  // way to it, say. They are compared again at the end of every callback. Written with the
  // snapshot.
  std::set<std::string, std::less<>> unread;

  // Paths that records of the running batch, not yet handed on, speak of. A scan with `reportNew`
  // leaves them to those records: it takes over what the last of them will tell, and nothing where
  // that is a departure.
  struct Pending {
    int records = 0;
    const FSChangedResource* last = nullptr;  // null for a departure
  };
  std::unordered_map<FSPath, Pending, FSPath::Hash> pending;

 private:
  struct Scan;
  enum class Reading : uint8_t { whole, partial, gone };

  // Folders that do not stand any more where lists are put in, and the taken lists that theirs
  // belong to, if any.
  using Elsewhere = std::vector<std::pair<std::string, FSSavedLists*>>;

  void ScanFolder(const std::string& path, FSOpenFolder folder, Scan scan) EXCLUDES(treeMutex);
  void ReportUnreadable(const std::string& path, int error) EXCLUDES(treeMutex);
  FSResourceList ReportEntries(const std::string& path, const FSResourceList& current,
                               const Scan& scan) EXCLUDES(treeMutex);
  FSResourcePtr NewEntry(const FSResourcePtr& entry, const FSResourceList& saved,
                         const FSResourceIndex& savedByINode) const;
  void Queue(const char* action, const FSResource& resource) EXCLUDES(treeMutex);
  void ForgetTold(const std::string& path, bool isFolder);
  void ForgetToldBelow(const std::string& path);
  void MoveTold(const std::string& oldPath, const std::string& newPath);
  FSResourceList TakeTold(const std::string& key);
  static Elsewhere::const_iterator Above(const std::string& key, const Elsewhere& elsewhere);
  void PutSavedList(const std::string& key, const std::string& toldKey,
                    const FSResourceList& entries, Elsewhere& elsewhere, FSResourceList& replaced);
  bool IsDeparting(const std::string& path) const;
  FSSavedLists* FindPlace(std::string& key) const;
  FSSavedLists* TakenAbove(const std::string& key) const;
  FSText TextOf(const std::string& key, const FSResourceList* saved) const;
  Reading ReadFolder(const FSOpenFolder& folder, const std::string& path,
                     const FSResourceList* saved, FSResourceList& entries) const;

  // The lists taken in the running callback, by the folder they were of.
  std::unordered_map<std::string, std::shared_ptr<FSSavedLists>> taken_;

  // What the reader is told of the entries of folders without a saved list, by the entries' paths.
  struct Told {
    FSResourcePtr resource;
    bool isTold = false;  // the record has been handed on
  };
  std::map<std::string, Told> told_;
};
