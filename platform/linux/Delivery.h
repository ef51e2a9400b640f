// What a running callback may have misread, and which folders are therefore named again.
//
// A callback reads folders by path, at times that nobody knows. Where folders move meanwhile, it
// may find another folder at a path than the one that was named, or none. A folder to which that
// may have happened is named again, with all below it, in the first batch before which no folder
// moved.
//
// Owned by the watch table; the reader thread alone uses it. The order of calls is the table's:
// NoteCut or NoteTree, then Begin and End unless the batch was empty.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include "KnownFolder.h"

class Delivery {
 public:
  // A batch is cut that names `named`. The callback meets the folders of `announced` for the first
  // time, or under a new path. REQUIRES: no callback is running.
  void NoteCut(KnownFolders named, KnownFolders announced);

  // The next batch is the root's: its callback reads the whole tree. REQUIRES: no callback is
  // running.
  void NoteTree() { isTreeNamed_ = true; }

  // The callback gets the batch. REQUIRES: no callback is running.
  void Begin() { isRunning_ = true; }
  bool IsRunning() const { return isRunning_; }

  // While a callback runs: a folder has left or taken the name in the parent.
  void NoteMove(const KnownFolder& parent, const std::string& name);

  // While a callback runs: a folder has taken the name in the parent. Returns whether one has
  // before, during the same callback, which may have read that one.
  bool NoteArrival(const KnownFolder& parent, const std::string& name);

  // Whether the folder was named by the batch of the callback that is running.
  bool HasNamed(KnownFolder& folder) const { return named_.contains(&folder); }

  // The callback has returned. `haveFoldersMoved`: since the batch was cut; `moved`: those of them
  // that are still known. `root` is null when there is none.
  void End(bool haveFoldersMoved, const KnownFolders& moved, KnownFolder* root);

  // The folders to name again.
  bool HasUnsettled() const { return !unsettled_.empty(); }
  KnownFolders TakeUnsettled() { return std::exchange(unsettled_, {}); }

  // The table drops the folder.
  void Forget(KnownFolder& folder);

 private:
  using Name = std::pair<uint64_t, std::string>;  // in the folder with this serial

  bool IsDisturbed(KnownFolder& folder, const KnownFolders& moved) const;
  void Unsettle(KnownFolder& folder);

  bool isRunning_ = false;

  // Of the last batch: from NoteCut or NoteTree until End or the next NoteCut.
  KnownFolders named_;
  KnownFolders announced_;
  bool isTreeNamed_ = false;

  // Of a running callback, until End.
  std::set<Name> disturbed_;  // left or taken by a folder; when full, every name is
  std::set<Name> arrivals_;   // taken by a folder

  // Named folders that may have been misread, and all below them: from End until they are taken.
  KnownFolders unsettled_;
};
