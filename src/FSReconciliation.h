// One comparison of one folder: what it holds now against what the snapshot says it held.
// FSEventWatcher makes one per named folder, under mainlock, on the main thread.
//
// The larger listing is walked (the saved one when they are equal), so that either the gains or the
// losses are told; entries with another name and changed files are told in both. A walk is linear
// in the entries: positions are looked up by path and by inode, and the folder's saved list is
// written once, at the end.
//
// Disk and snapshot can differ in ways that two listings alone do not explain. Four of them would
// leave the reader's picture wrong for good, and are met here.
//
// A file with several names: another name of a file that still has its old one is a creation, not a
// rename; see OldNameOf and NewNameOf.
//
// A rename onto a name that existed: what had the name leaves the saved list together with the old
// name; see Renamed. Were it to stay, the name would count twice and hide a later creation.
//
// A name that is of another kind now: a deletion and a creation; see SameName.
//
// A disk that moves on during the callback: the saved lists hold what the reader has been told,
// until a record corrects it. A folder that moves takes its lists along (Renamed; FSChangeBatch for
// a move between folders), and a scan keeps the records of what it finds saved (FSTree::DirSearch).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "FSChangeEvents.h"
#include "FSResource.h"
#include "FSTree.h"

class FSReconciliation {
 public:
  // `folder` ends with "/". Records are appended to `batch`.
  FSReconciliation(const std::string& folder, FSTree& tree, FSChangeEvents& log,
                   FSChangeList& batch);
  void Run();

 private:
  using Position = uint32_t;
  static constexpr Position kNone = FSResourceIndex::kNone;

  void WalkCurrent();
  void WalkSaved();
  bool IsUnchanged(Position c, Position s) const;

  // The cases. Positions are those of the current entry and the saved entry. Deleted leaves it to
  // its caller to take the entry out of the list.
  void SameName(Position c, Position s);
  void Changed(Position c);
  void Renamed(Position c, Position s);
  void Created(Position c);
  void Deleted(Position s);

  // The saved entry that the current one had as its name before, and the reverse; kNone when it had
  // none.
  Position OldNameOf(Position c);
  Position NewNameOf(Position s);

  bool IsSavedAs(const FSResource& file, const FSPath& path);
  bool IsNowAs(const FSResource& file, const FSPath& path);
  void TakeIdentity(Position c, Position s);

  void Edit();
  void Add(Position c);
  void Remove(const FSPath& path);
  void Leave(const FSPath& path);
  void Log(const char* format, const FSResource& resource);

  const FSResourceIndex& CurrentByPath();
  const FSResourceIndex& CurrentByINode();
  const FSResourceIndex& SavedByPath();
  const FSResourceIndex& SavedByINode();

  FSTree& tree_;
  FSChangeEvents& log_;
  FSChangeList& batch_;
  const std::string key_;

  FSResourceList current_;
  const FSResourceList& saved_;  // in the snapshot, until the end of the walk

  std::vector<bool> told_;  // by current position: reported as a creation or under its new name
  std::vector<bool> gone_;  // by saved position: has another name, or another file has its name
  std::vector<Position> added_;  // by current position: where it stands in list_

  // The saved list to be, once something in it changes: saved_, then what is added; null where
  // removed.
  FSResourceList list_;
  bool isEdited_ = false;

  std::optional<FSResourceIndex> currentByPath_, currentByINode_, savedByPath_, savedByINode_;
};
