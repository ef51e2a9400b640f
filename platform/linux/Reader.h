// One step of the stream's reader: takes in what the kernel and the disk have to report and says
// when a batch is due. It has no thread, no lock and no clock, and never waits: the time is an
// argument, so that tests can step it by hand.
//
// Owned by the stream, whose reader thread alone uses it. Nothing below keeps it from being used by
// the thread that makes the stream until that thread has started the reader.
//
// What a batch promises: folders are named by the watched path as given, the way down and a final
// "/"; a folder is named once, or twice in a row when it both lost and gained entries, since the
// callback compares one side at a time; folders that gained entries are met first, parents before
// children, so that new folders come out before their contents and the destination of a move before
// its source; what changed in a folder that moved comes in the batch after the move. The watched
// folder's own going, coming or replacement is one event with the root-changed flag, alone in its
// batch; a new root is watched before that, and what was pending below the old one is dropped.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Latency.h"
#include "MountTable.h"
#include "Root.h"
#include "WatchTable.h"

class Reader {
 public:
  using Time = Latency::Time;

  struct Batch {
    std::vector<NamedFolder> folders;  // the callback works from the last to the first
    bool isRoot = false;               // the watched folder itself has changed
  };

  // `path` is without a final "/", but for "/". What is there now is what the callback knows.
  Reader(const std::string& path, Latency::Duration latency);
  ~Reader() = default;
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Whether the system gave an inotify instance for the tree, without which there is no reader.
  bool isOpen() const { return table_.isOpen(); }

  // The descriptors to wait on: for the tree and the way down to it POLLIN, for mounts POLLPRI; -1
  // where there is none.
  int tree() const { return table_.number(); }
  int way() const { return root_.number(); }
  int mounts() const { return mounts_.number(); }

  // Watches the folder, under its path without a final "/", before somebody lists it; the watched
  // folder first, then each after the one above it. REQUIRES: not started.
  void Enter(const std::string& path, const OpenFolder& folder, Time now);

  // From now on Step gives batches, of what has changed since the folders were entered. Where none
  // was, all are watched now. To be called once.
  void Start(Time now);

  // Takes in what there is, without waiting. Gives a batch when one is due, the reader is started,
  // and no callback is running. With that batch a delivery begins, which the caller ends by
  // EndDelivery.
  std::optional<Batch> Step(Time now);

  // When Step is to be called again though nothing has come; nothing for never. May be past.
  std::optional<Time> NextWake() const;

  // Whether there are changes for a batch that is not due yet.
  bool IsGathering() const { return latency_.Due().has_value(); }

  // The callback has returned: the next Step takes in what happened before. REQUIRES: Step has
  // given a batch since the last call.
  void EndDelivery() { isDelivered_ = true; }

  // The callback could not read the folder at this path: names it in a batch to come.
  void NameAgain(const std::string& path);

  // Takes in a change of the mount table. REQUIRES: mounts() is ready.
  void ReadMounts();

 private:
  void TakeIn(Time now);
  void VisitUnwatched(Time now);
  void RetryUnopened(Time now);
  bool AwaitCut(Time now);
  std::optional<Batch> SettleRoot();
  void WatchRoot(Root::Sight sight);
  void ExamineMounts();
  void NoteMounts();
  void TakeInMounts();
  void PlaceMounts();

  Root root_;
  WatchTable table_;
  const Root::Probe probe_;
  MountTable mounts_;
  Latency latency_;

  bool isEntered_ = false;  // the root
  bool isStarted_ = false;
  bool isDelivering_ = false;  // from the Step that gives a batch to the one after EndDelivery
  bool isDelivered_ = false;   // between these two

  // The second half of a move is waited for until then. Set when a batch is due, until it is cut.
  std::optional<Time> moveWait_;

  // Mounts and unmounts to look at: from ReadMounts until they were looked at while no folder
  // moved.
  MountTable::Mounts mounted_;

  // Folders without a watch are visited, and those that could not be opened tried again, in slices
  // of a few milliseconds, one folder a step.
  std::optional<Time> nextVisit_;  // while there are such folders
  std::optional<Time> visitsEnd_;  // of the slice, while in one
  int64_t visitsLeft_ = 0;         // in the slice
  Time nextRetry_{};               // at the earliest
  std::optional<Time> retriesEnd_;
};
