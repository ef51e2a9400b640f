// The second half of an event callback: takes the records that the comparisons of one batch gave,
// merges the deletion and the creation of a file that moved between two folders into one rename,
// and hands everything to the output queue in an order that a reader can follow.
//
// Made and used by FSEventWatcher::FSEvents_Callback on the main thread, without mainlock, which it
// takes for each record it hands on.
//
// A rename takes the place of its earlier half. Where a record between the halves speaks of the
// place that the later half is about (a folder above it got its name or another one, say), it takes
// the place of the later half; where that does not do either, the halves stay what they are. A
// folder that moves takes its saved lists along: they travel with its deletion.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FSResource.h"
#include "ThreadSafety.h"

extern Mutex mainlock;

struct FSSavedLists;

class FSChangeBatch {
 public:
  // The records of a batch, in the order of the comparisons.
  explicit FSChangeBatch(FSChangeList records);

  // Hands everything on, and scans what is new. Returns the folders that came to their place with
  // saved lists, with all below them that have such lists, parents first.
  std::vector<std::string> Emit() EXCLUDES(mainlock);

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  void EmitRecord(const FSChangedResource& record) EXCLUDES(mainlock);
  void EmitAlone(const FSChangedResource& record) EXCLUDES(mainlock);
  void EmitRename(const FSChangedResource& earlier, const FSChangedResource& later)
      EXCLUDES(mainlock);
  FSResourceList MoveSavedLists(FSSavedLists& saved, const FSChangedResource& created);
  void RebuildSnapshot() EXCLUDES(mainlock);

  size_t PartnerOf(size_t position) const;
  bool SpokenOfBetween(size_t from, size_t to, const FSChangedResource& record);
  bool StandsBetween(size_t from, size_t to, std::string_view path) const;
  using Mention = std::vector<std::pair<std::string, size_t>>::const_iterator;
  Mention FirstSpokenOf(std::string_view path, size_t position) const;
  void IndexPaths();
  void Expect(const FSChangedResource& record, int change);
  void ExpectPath(const FSPath& path, const FSChangedResource* last, int change);

  FSChangeList records_;
  const bool hasFolders_;   // else nothing is scanned or moved, and nobody asks what is pending
  std::vector<bool> done_;  // by position: emitted, or merged into a rename
  std::vector<size_t> earlierHalf_;  // by position: the half that waits to be emitted here
  std::vector<std::pair<uint64_t, size_t>> byINode_;
  std::vector<std::pair<std::string, size_t>> byPath_;  // empty until a rename needs it
  std::vector<std::string> moved_;
};
