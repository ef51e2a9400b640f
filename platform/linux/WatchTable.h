// The folders of the watched tree and their watches: turns what the kernel says into the folders
// that a batch names. It has no thread and no clock, so that tests can step it by hand.
//
// Owned by the stream, whose reader thread alone uses it.
//
// How it keeps the truth:
//
// An event is a hint about a name. After one that concerns a subfolder, that one path is examined
// on the disk; what happened is never rebuilt from the order of events.
//
// A folder is known by its watch descriptor, which stays the same wherever the folder goes. What
// leaves a path becomes an orphan, with all below it, and is found again by its descriptor when it
// turns up elsewhere. Orphans that nobody has taken up when a batch is cut are dropped.
//
// Watch first, list second, name third, and open each folder relative to the one that lists it, so
// that nothing falls between. A folder that events spoke of while its path may have been out of
// date (`touched`) is listed again when it turns up under another path.
//
// While the callback works on a batch, from BeginDelivery to EndDelivery, it reads folders by path
// at times that nobody knows. What changes meanwhile is named for both sides, and folders at whose
// path it may have met another folder are named again when no folder moves any more.
//
// When the kernel's queue overflows, the tree is walked again and every folder named. A folder that
// cannot be given a watch is visited in turn; see VisitNext.
//
// What it keeps is bound by the number of folders, not of events.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Backoff.h"
#include "CoreServices/CoreServices.h"
#include "Folder.h"
#include "Inotify.h"

// One event of a batch: the folder's path with its final "/".
struct NamedFolder {
  std::string path;
  FSEventStreamEventFlags flags;
};

class WatchTable {
 public:
  using Time = Backoff<uint64_t>::Time;

  WatchTable() = default;
  ~WatchTable();
  WatchTable(const WatchTable&) = delete;
  WatchTable& operator=(const WatchTable&) = delete;

  // Whether an inotify instance could be had, and its descriptor to wait on.
  bool isOpen() const { return inotify_.isOpen(); }
  int number() const { return inotify_.number(); }

  // Watches the open folder as the root of the tree, under `path` (without a final "/", but for
  // "/"), and all below it. Nothing of what was there before stays; nothing of what is there now is
  // named.
  void WatchRoot(const std::string& path, OpenFolder folder);

  // Marks the folders in which something changed since the time, for what happened before their
  // watches stood.
  void LookBack(const timespec& since);

  // Forgets the tree and its watches.
  void Clear();

  // Whether the open folder is the one that WatchRoot was given, going by its watch.
  bool IsRoot(const OpenFolder& folder);

  // The root is the same and can be read, or cannot (a handle that is not open). When it can be
  // read again, everything is named. `wasAstray`: its path may have led elsewhere while names below
  // it were looked at.
  void NoteRoot(OpenFolder folder, bool wasAstray = false);

  // A mount or an unmount at the path, relative to the root, of which no event tells: examines what
  // is there now, and in the place that was noted for the mount, whatever has been renamed above it
  // since. `what` tells mounts apart.
  void ExamineMount(const std::string& path, const std::string& what);

  // Notes where something is mounted. And the reverse, for all mounts.
  void NoteMount(const std::string& path, const std::string& what);
  void ForgetMounts() { mounts_.clear(); }

  // Names the folder at the path, if it is known, in the next batch, for both sides.
  void NameAgain(const std::string& path);

  // Names the root in the next batch, though nothing in it is known to have changed.
  void NameRoot();

  // Whether something makes it doubtful that the root is still there; asking takes the doubt away.
  bool TakeRootDoubt() { return std::exchange(isRootInDoubt_, false); }

  // Drains the kernel's queue and applies it. Apply takes events as the kernel writes them.
  void Read();
  void Apply(std::string events);

  // Whether the last event was the first half of a move. The second half follows at once, but not
  // always in the same read.
  bool EndsInMove() const { return endsInMove_; }

  // Whether folders have moved since the last batch was cut.
  bool HaveFoldersMoved() const { return haveFoldersMoved_; }

  bool HasChanges() const { return !marked_.empty() || !unsettled_.empty() || isOverflown_; }

  // The folders to name, in the order of a batch: the callback works from the last to the first.
  // What changed in a folder that has moved stays for the next batch.
  std::vector<NamedFolder> Cut();

  // The callback is to get a batch. It reads folders from now on, at times that nobody knows.
  void BeginDelivery() { isDelivering_ = true; }

  // The callback is done with the last batch, and Read has been called since. Where folders moved
  // meanwhile, it may have found other folders than those named: they are named again when it is
  // quiet. Those that lost or gained entries meanwhile are named for both.
  void EndDelivery();

  // Visits the next of the folders that have no watch, in turn: gives it one if it is to be had by
  // now, and marks it if something in it changed since the last visit. Whether it needs no further
  // visit.
  bool VisitNext();

  // Tries again to open the next of the folders that could not be opened or listed, if its turn has
  // come. Whether it had.
  bool RetryNext(Time now);
  std::optional<Time> NextRetry() const { return unopened_.Next(); }

  // How many folders have a watch, and how many of those that can be opened could not be given one.
  size_t WatchedCount() const { return byWatch_.size(); }
  size_t UnwatchedCount() const { return toVisit_.size(); }

 private:
  static constexpr int kMostOpen = 256;            // folders held open on the way down
  static constexpr size_t kMostUnread = 16 << 20;  // bytes of events kept during a walk
  static constexpr size_t kMostDepartures = 1 << 16;

  struct Folder;
  struct ByName {
    using is_transparent = void;
    bool operator()(const std::unique_ptr<Folder>& a, const std::unique_ptr<Folder>& b) const;
    bool operator()(const std::unique_ptr<Folder>& a, std::string_view b) const;
    bool operator()(std::string_view a, const std::unique_ptr<Folder>& b) const;
  };
  using Children = std::set<std::unique_ptr<Folder>, ByName>;

  enum Mark : uint8_t {
    kLost = 1,      // an entry went
    kGained = 2,    // an entry came
    kWritten = 4,   // an entry was written or had its attributes changed
    kReplaced = 8,  // the folder stands in another one's place
  };

  struct Folder {
    Folder* parent = nullptr;  // null for the root and for the top of an orphaned subtree
    std::string name;          // of the root: its path
    Children children;
    Folder* twin = nullptr;  // the next folder with the same watch: one folder under two paths, by
                             // a bind mount
    uint64_t serial = 0;     // never used twice
    int watch = -1;
    uint32_t born = 0;      // the epoch in which it was entered
    uint32_t touched = 0;   // the last epoch with an event about a subfolder, here or below
    uint32_t replaced = 0;  // the last epoch in which it took another one's place
    uint8_t marks = 0;
    bool isUnreadable = false;  // for want of permission
    bool isInDoubt = false;     // could not be opened or listed, by a failure that passes
  };

  // A name in a folder.
  struct Place {
    Folder* parent = nullptr;
    std::string name;
  };

  // Where a folder stood when the last batch was cut.
  struct Origin {
    uint64_t parent = 0;
    std::string name;
    uint32_t epoch = 0;  // in which it left
  };

  // A folder without a watch, as it was when it was last visited.
  struct Unwatched {
    Folder* folder = nullptr;
    FileIdentity identity;
    uint64_t fingerprint = 0;
  };

  // A path that a folder has left: which folder (0 for several), and in which epoch.
  struct Departure {
    uint64_t serial = 0;
    uint32_t epoch = 0;
  };

  // How a walk goes about the folders it meets.
  struct Walk {
    bool isNew = false;        // begins with a folder that has been made here
    bool isRepair = false;     // list every folder, known or not
    bool isReplaced = false;   // everything met stands in another folder's place
    bool isRelocated = false;  // list known folders that have been touched
    int depth = 0;             // handles held open
    size_t length = 0;         // of the path, in bytes
  };

  void ApplyEvent(const Event& event);
  void ApplyTo(Folder& folder, const Event& event);
  void LoseWatch(int watch, uint8_t marksAbove);
  void Repair();

  Place PlaceOf(const std::string& path) const;
  void Examine(Folder& parent, const std::string& name, bool isNew = false);
  void Missing(Folder& parent, const std::string& name, Failure failure);
  void Doubt(Folder& folder, bool isListed);
  void Adopt(Folder& parent, const std::string& name, OpenFolder handle, Walk walk);
  bool NeedsListing(const Folder& folder, const Walk& walk) const;
  bool IsUnwatched(const Folder& folder, int watch, const OpenFolder& handle) const;
  Folder* FindUnwatched(const FileIdentity& identity) const;
  bool HasChangedUnwatched(Folder& folder, const OpenFolder& handle, int watch);
  Folder* Relocate(int watch, Folder& parent, const std::string& name, const OpenFolder& handle);
  bool CanMove(const Folder& folder, const Folder& parent, const OpenFolder& handle);
  bool IsListed(const Folder& parent, const std::string& name) const;
  void ListRobbed();
  void List(Folder& folder, OpenFolder handle, const Walk& walk);
  void LookBack(Folder& folder, OpenFolder handle, const timespec& since, int depth);
  void DetachUnlisted(Folder& folder, std::vector<std::string>& listed);
  void AdoptChild(Folder& folder, const OpenFolder& handle, const std::string& name,
                  const Walk& walk);

  Folder* ChildOf(const Folder& parent, std::string_view name) const;
  Folder& Enter(Folder& parent, const std::string& name, int watch, const OpenFolder& handle);
  void Detach(Folder& folder);
  void Attach(std::unique_ptr<Folder> extracted, Folder& parent, const std::string& name);
  std::unique_ptr<Folder> Extract(Folder& folder);
  void NoteDeparture(const Folder& parent, const std::string& name, uint64_t serial);
  void NoteComer(const Folder& parent, const std::string& name);
  void NoteArrival(const Folder& parent, const std::string& name);
  bool WasTaken(const Folder& parent, const std::string& name, const Folder* by) const;
  void Bury(Folder& folder);

  bool IsWatchedAs(const Folder& folder, const OpenFolder& handle);
  Folder* FindByWatch(int watch) const;
  void SetWatch(Folder& folder, int watch);
  bool UnsetWatch(Folder& folder);

  void MarkFolder(Folder& folder, uint8_t marks);
  void Unsettle(Folder& folder);
  bool IsDisturbed(Folder& folder) const;
  void ForgetOrigins();
  void MarkAll(Folder& folder, uint8_t marks);
  void Touch(Folder& folder);
  bool IsRecent(uint32_t epoch) const { return epoch + 1 >= epoch_; }
  bool IsInTree(const Folder& folder) const;
  bool IsHeldBack(const Folder& folder) const;
  bool IsReadable(const Folder& folder) const;
  size_t LongestBelow(const Folder& folder) const;
  static std::string Join(const std::string& folder, const std::string& name);
  std::string PathOf(const Folder& folder) const;
  void ReadDuringWalk();

  Inotify inotify_{Inotify::Interest::entries};
  std::unique_ptr<Folder> root_;
  FileIdentity rootIdentity_;
  std::unordered_map<int, Folder*> byWatch_;
  std::unordered_map<Folder*, std::unique_ptr<Folder>> orphans_;  // by the top of each subtree

  // All of these refer to folders of the tree or orphans; Bury takes a dropped one out of them.
  std::unordered_set<Folder*> marked_;
  std::unordered_set<Folder*> robbed_;                 // whose folders were taken; see ListRobbed
  std::unordered_set<Folder*> fresh_;                  // entered since the last batch
  std::unordered_set<Folder*> moved_;                  // since the last batch
  std::unordered_set<Folder*> named_;                  // in the batch that is being delivered
  std::unordered_set<Folder*> announced_;              // new when it was cut, or moved just before
  std::unordered_set<Folder*> unsettled_;              // to be named again
  std::map<uint64_t, Unwatched> unwatched_;            // by serial
  std::set<uint64_t> toVisit_;                         // those of them that can be opened
  uint64_t visited_ = 0;                               // the last of these
  std::unordered_map<uint64_t, Folder*> doubted_;      // unreadable or in doubt, by serial
  Backoff<uint64_t> unopened_;                         // the same, and when they are tried again
  Time now_{};                                         // as of the last of these tries
  std::map<std::string, Place> mounts_;                // by what is mounted there
  std::unordered_map<const Folder*, Origin> origins_;  // of folders that moved since the last batch

  std::map<std::pair<uint64_t, std::string>, Departure> departures_;  // by parent and name
  uint32_t manyDepartures_ = 0;  // the last epoch in which they were too many to be kept apart

  std::set<std::pair<uint64_t, std::string>> arrivals_;  // of folders during a delivery, likewise

  std::set<std::pair<uint64_t, std::string>> disturbed_;  // left or taken by folders during one

  uint64_t serials_ = 0;
  uint32_t epoch_ = 2;        // rises with every batch; 0 is long ago
  uint32_t repaired_ = 0;     // the last epoch with a repair: any event may have been lost before
  bool isOverflown_ = false;  // events were lost since the last batch
  bool needsRepair_ = false;
  bool isRootInDoubt_ = false;
  bool isRootLost_ = false;  // its watch is gone
  bool endsInMove_ = false;
  bool haveLongPaths_ = false;  // so long that some entries could not be named
  bool isDelivering_ = false;
  bool isTreeNamed_ = false;       // as a new root, in the batch that is being delivered
  bool haveFoldersMoved_ = false;  // since the last batch was cut
  std::string unread_;             // events read during a walk, to be applied after it
  int walked_ = 0;
};
