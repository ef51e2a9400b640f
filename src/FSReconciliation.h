// One comparison of one folder: what it holds now against what has been reported of it. The
// callback makes one for each named folder, under mainlock, on the main thread. Renames within the
// folder are found here, moves between folders in FSChangeBatch.
//
// The larger listing is walked (the saved one when they are equal), so that either the gains or the
// losses are reported; entries with another name and changed files are reported in both cases. A
// walk is linear in the entries. Its results go to FSTransit: the records, and the listing that the
// folder has when they are out.
//
// Disk and snapshot can differ in ways that two listings alone do not explain. These would leave
// the reader's picture wrong for good, or report a move as something else, and are handled here.
//
// A file with several names: another name of a file that still has its old one is a creation, not a
// rename; see OldNameOf and NewNameOf.
//
// A rename onto a name that existed: what had the name leaves the listing together with the old
// name; see Renamed. Where that has another name now too, its rename comes first; see MoveChain. A
// ring of names cannot be reported as renames: files in a ring are reported as changed, and folders
// by their contents.
//
// A name that is of another kind now: a deletion and a creation. A name that is another file's of
// the same kind: the saved entry takes over its identity, with or without a record. See SameName.
//
// A folder or entry that a temporary failure keeps from being read: nothing is reported of it.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "FSChangeEvents.h"
#include "FSListing.h"
#include "FSTransit.h"
#include "FSTree.h"

class FSReconciliation {
 public:
  // `key` is the folder's path without a final "/".
  FSReconciliation(std::string key, FSTree& tree, FSTransit& transit, FSChangeEvents& log);

  // Compares the folder once. Returns whether the other side is left to report: a second comparison
  // reports it.
  bool Run();

  // The same where nothing but these names can have changed. Only they are examined, unless that
  // may give another result: then the folder is read.
  bool RunOn(const FSNames& names);

 private:
  using Position = uint32_t;
  static constexpr Position kNone = FSListingIndex::kNone;

  void Walk();
  void WalkCurrent();
  void WalkSaved();

  // The cases. Positions are those of the current entry and the saved entry.
  void SameName(Position c, Position s);
  void SameNameOtherFile(Position c, Position s);
  void KeepName(Position c, Position s);
  void MoveChain(Position first);
  using Moves = std::vector<std::pair<Position, Position>>;  // current and saved position
  void Ring(const Moves& ring);
  void Changed(Position c, Position s);
  void Renamed(Position c, Position s);
  void Arrived(Position c);
  void Created(Position c);
  void Deleted(Position s);

  // The saved entry whose name the current one had before, and the reverse; kNone when there is
  // none. Entries that are settled are not found.
  Position OldNameOf(Position c);
  Position NewNameOf(Position s);
  bool StillHasItsName(Position s);
  bool HadItsName(Position c);
  template <typename IsOut>
  Position FirstIn(const FSListingIndex& index, Position from, std::vector<Position>& next,
                   IsOut isOut);

  // The resulting listing: saved entries that stay, some of them replaced by the current ones of
  // their names, then current entries.
  void Leave(std::string_view name);
  void Append(Position c);
  bool isEdited() const { return !edits_.empty() || !appended_.empty(); }
  FSListingPtr MakeListing() const;

  FSResource Current(Position c) const;
  FSResource Saved(Position s) const;
  void Report(const char* action, FSResource resource);
  bool hasReported_ = false;
  void Log(const char* format, const FSResource& resource);

  const FSListingIndex& CurrentByName();
  const FSListingIndex& CurrentFiles();
  const FSListingIndex& SavedByName();
  const FSListingIndex& SavedFiles();

  FSTree& tree_;
  FSTransit& transit_;
  FSChangeEvents& log_;
  const std::string key_;

  // Of the folder's entries, or of those examined.
  FSEntries current_, saved_;

  // By position: there is nothing more to find out about the entry. Of a saved one, because it has
  // left its name.
  std::vector<bool> isCurrentSettled_, isSavedSettled_;

  // By position: the next one of the same file that may not be settled, if FirstIn has found it.
  std::vector<Position> nextCurrent_, nextSaved_;

  // Empty until something is edited. By saved position: the saved entry stays, is replaced by the
  // current one of this position, or leaves.
  static constexpr Position kStays = kNone - 1;
  std::vector<Position> edits_;
  std::vector<Position> appended_;    // current positions,
  std::vector<Position> appendedAt_;  // and by current position where it is among them, or kNone
  void Edit();

  std::optional<FSListingIndex> currentByName_, currentFiles_, savedByName_, savedFiles_;
};
