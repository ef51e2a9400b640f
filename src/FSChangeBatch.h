// The second half of a pass: takes the records that the comparisons gave, merges the deletion and
// the creation of a file that moved between two folders into one rename, and emits everything in an
// order that a reader can follow. To emit a record is to queue its line and to do in the snapshot
// what the reader will do in its picture; nothing else changes the snapshot's entries.
//
// Made by FSEventWatcher for one pass. Main thread, without mainlock, which is taken to queue
// each record.
//
// A rename takes the place of its earlier half. Where a record between the halves concerns the path
// of the later half (a folder above it is created or renamed, say), it takes the place of the later
// half; where that is not possible either, they stay two records.
//
// A record can be wrong by the time it is emitted, because things moved between two comparisons. So
// each is compared with the snapshot first, and becomes what a reader can follow or is left out;
// the check after the pass then finds the difference. See EmitCreation, EmitRename and
// EmitDeletion.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FSChangeEvents.h"
#include "FSResource.h"
#include "FSSettings.h"
#include "FSTransit.h"
#include "FSTree.h"

class FSChangeBatch : private FSScanListener {
 public:
  // Takes the transit's records. All three must outlive the batch.
  FSChangeBatch(FSTree& tree, FSChangeEvents& changes, FSTransit& transit);

  // Emits everything, and scans what is new.
  void Emit() EXCLUDES(mainlock);

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  // Records that are not merged, and the two halves of a move.
  void EmitAlone(const FSChangedResource& record) EXCLUDES(mainlock);
  void EmitHalves(const FSChangedResource& earlier, const FSChangedResource& later)
      EXCLUDES(mainlock);
  void EmitDeletion(const FSResource& gone) EXCLUDES(mainlock);
  void EmitCreation(const FSResource& created) EXCLUDES(mainlock);
  void EmitRename(const FSResource& renamed) EXCLUDES(mainlock);
  void EmitRoot(const FSChangedResource& record) EXCLUDES(mainlock);
  void Queue(const char* action, const FSResource& resource) EXCLUDES(mainlock);

  bool Insert(const FSResource& created, const std::optional<FileStatus>& known) EXCLUDES(mainlock);
  void DeleteBelow(const std::string& path) EXCLUDES(mainlock);
  bool IsBelowFile(std::string_view path);

  size_t PartnerOf(size_t position) const;
  bool IsConcernedBetween(size_t from, size_t to, const FSChangedResource& record);
  bool IsBetween(size_t from, size_t to, std::string_view path) const;
  using PathPosition = std::vector<std::pair<std::string_view, size_t>>::const_iterator;
  PathPosition FirstAt(std::string_view path, size_t position) const;
  void IndexPaths();

  // What a scan asks and reports; see FSScanListener.
  bool IsPending(const std::string& path) override;
  FSListingPtr OwnListing(const std::string& key) const override;
  void OnNew(const FSResource& entry) override;
  void OnRead(const std::string& key, const FSListingPtr& listing, const FSLook& look) override;

  FSTree& tree_;
  FSChangeEvents& changes_;
  FSTransit& transit_;
  const FSChangeList records_;
  std::vector<bool> isEmitted_;      // by position; also what has been merged into a rename
  std::vector<size_t> earlierHalf_;  // by position: the half that waits to be emitted here
  std::vector<std::pair<uint64_t, size_t>> byINode_;
  std::vector<std::pair<std::string_view, size_t>> byPath_;  // paths and old paths; empty until a
                                                             // rename or a scan needs it
};
