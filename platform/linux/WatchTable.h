// The folders of the watched tree and their watches: turns what the kernel reports into the folders
// that a batch names. It has no thread and no clock, so that tests can step it by hand.
//
// Owned by the stream, whose reader thread alone uses it.
//
// How it stays right:
//
// An event is a hint about a name. After one that concerns a subfolder, that one path is examined
// on the disk; what happened is never rebuilt from the order of events.
//
// A folder is known by its watch descriptor, which stays the same wherever the folder goes. What
// leaves a path becomes an orphan, with all below it, and is found again by its descriptor when it
// turns up elsewhere. Orphans that have no place when a batch is cut are dropped.
//
// Watch first, list second, name third, and open each folder relative to the one that lists it, so
// that no change falls between. A folder that had events while its path was possibly out of date
// (`touched`) is listed again when it turns up under another path.
//
// While the callback works on a batch, from BeginDelivery to EndDelivery, it reads folders by path
// at times that nobody knows; see Delivery.h.
//
// When the kernel's queue overflows, the tree is walked again and every folder named. A folder that
// cannot be given a watch is visited in turn; see VisitNext.
//
// The order of calls: WatchRoot; then Read as often as wanted; Cut; and if the batch is not empty,
// BeginDelivery, Read as often as wanted, and once more after the callback, EndDelivery.
//
// What it keeps is bounded by the number of folders, not of events.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Backoff.h"
#include "CoreServices/CoreServices.h"
#include "Delivery.h"
#include "Folder.h"
#include "Inotify.h"
#include "KnownFolder.h"
#include "Root.h"

// One event of a batch: the folder's path with its final "/".
struct NamedFolder {
  std::string path;
  FSEventStreamEventFlags flags;

  // Of the entries that have changed since the folder was named the last time; null where other
  // entries may have changed too.
  std::shared_ptr<const EntryNames> names = nullptr;
};

class WatchTable {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // `watched` is put in doubt when the root does not seem to be where it was. It must outlive this.
  explicit WatchTable(Root& watched) : watched_(watched) {}
  ~WatchTable() = default;
  WatchTable(const WatchTable&) = delete;
  WatchTable& operator=(const WatchTable&) = delete;

  // Whether the system gave an inotify instance, and its descriptor to wait on.
  bool isOpen() const { return inotify_.isOpen(); }
  int number() const { return inotify_.number(); }

  // Watches the open folder as the root of the tree, under `path` (without a final "/", but for
  // "/"), and all below it. Nothing of what was there before stays; nothing of what is there now is
  // named. REQUIRES: no delivery is running.
  void WatchRoot(const std::string& path, OpenFolder folder);

  // The same, folder by folder, in the order of a scan that lists each of them after this: the
  // root, then each folder after the one above it, under its path. One that is not open, but is
  // there, is tried again at its own times. What happens meanwhile is taken in after EndEntering,
  // which comes once.
  void EnterRoot(const std::string& path, const OpenFolder& folder);
  void EnterScanned(const std::string& path, const OpenFolder& folder);
  void EndEntering();

  // Forgets the tree and its watches. REQUIRES: no delivery is running.
  void Clear();

  // Finds out by its watch whether the open folder is the one that WatchRoot was given. Sets a
  // watch for that, and removes it when the folder is another.
  bool ProbeRoot(const OpenFolder& folder);

  // The root is the same and can be read, or cannot (a handle that is not open). When it can be
  // read again, everything is named. `wasAstray`: names below it were possibly looked up elsewhere.
  void NoteRoot(OpenFolder folder, bool wasAstray = false);

  // A mount or an unmount at the path, relative to the root, which sends no event: examines what is
  // there now, and in the place that was noted for the mount, whatever has been renamed above it
  // since. `what` tells mounts apart. Whether any of these is in a known folder.
  bool ExamineMount(const std::string& path, const std::string& what);

  // Notes where something is mounted. And the reverse, for all mounts.
  void NoteMount(const std::string& path, const std::string& what);
  void ForgetMounts() { mounts_.clear(); }

  // Names the folder at the path, if it is known, in the next batch, for both sides.
  void NameAgain(const std::string& path);

  // Names the root in the next batch, though nothing in it is known to have changed.
  void NameRoot();

  // Applies all that has happened until now, and little of what happens meanwhile: see HasUnread.
  void Read();

  // Whether the last event was the first half of a move. The second half follows at once, but not
  // always in the same read.
  bool EndsInMove() const { return endsInMove_; }

  // Whether folders have moved since the last batch was cut.
  bool HaveFoldersMoved() const { return haveFoldersMoved_; }

  // Whether Read has to be called though the kernel's queue is empty.
  bool HasUnread() const { return !unread_.empty(); }

  // Whether there is something to cut.
  bool HasChanges() const {
    return !marked_.empty() || delivery_.HasUnsettled() || isOverflown_ || needsRepair_ ||
           !inVain_.empty();
  }

  // The folders to name, in the order of a batch: the callback works from the last to the first.
  // What changed in a folder that has moved stays for the next batch. REQUIRES: no delivery is
  // running. What has not been read is not in the batch.
  std::vector<NamedFolder> Cut();

  // The callback gets the batch that was cut last, or the root's after WatchRoot or Clear, and
  // reads folders from now on. REQUIRES: no delivery is running, and no Read since Cut.
  void BeginDelivery() { delivery_.Begin(); }

  // The callback has returned. Where folders moved meanwhile, it possibly found other folders than
  // those named: they are named again when no folder moves. Those that lost or gained entries
  // meanwhile are named for both. REQUIRES: BeginDelivery, and a Read since the callback returned.
  void EndDelivery();

  // Visits the next of the folders that have no watch, in turn: tries to give it one, and marks it
  // if something in it changed since the last visit. Returns whether it needs no further visit.
  bool VisitNext();

  // Tries again to open the next of the folders that could not be opened or listed. False when none
  // is due.
  bool RetryNext(Time now);
  std::optional<Time> NextRetry() const { return unopened_.Next(); }

  // How many folders have a watch, and how many of those that can be opened have none.
  size_t WatchedCount() const { return byWatch_.size(); }
  size_t UnwatchedCount() const { return toVisit_.size(); }

 private:
  using Folder = KnownFolder;
  using enum KnownFolder::Mark;

  static constexpr int kMostOpen = 256;  // folders held open on the way down

  // Bytes of events kept during a walk: as many events as the kernel keeps by default, because no
  // batch is cut until they are applied. While folders are entered nothing waits for a batch.
  static constexpr size_t kMostUnread = 512 << 10;
  static constexpr size_t kMostWhileEntering = 16 << 20;

  // A name in a folder.
  struct Place {
    Folder* parent = nullptr;
    std::string name;
  };

  // Where a folder was when the last batch was cut.
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
    bool isReplaced = false;   // everything met is in another folder's place
    bool isRelocated = false;  // list known folders that have been touched
    int depth = 0;             // handles held open
    size_t length = 0;         // of the path, in bytes
  };

  // WatchTable.cpp: events to marks to names.
  void ApplyEvent(const Event& event);
  void ApplyTo(Folder& folder, const Event& event);
  void LoseWatch(int watch, uint8_t marksAbove);
  void Repair();
  void NoteInVain(Folder& parent, const std::string& name, bool hasCome);
  void LookAgain();
  void NoteComer(const Folder& parent, const std::string& name);
  void MarkFolder(Folder& folder, uint8_t marks);
  void MarkEntry(Folder& folder, uint8_t marks, std::string_view name);
  void ForgetNames(Folder& folder);
  std::shared_ptr<const EntryNames> TakeNames(Folder& folder);
  void MarkAll(Folder& folder, uint8_t marks);
  void Touch(Folder& folder);
  bool IsRecent(uint32_t epoch) const { return epoch + 1 >= epoch_; }
  bool IsInTree(const Folder& folder) const;
  bool IsHeldBack(const Folder& folder) const;
  bool IsReadable(const Folder& folder) const;
  static std::string Join(const std::string& folder, const std::string& name);
  std::string PathOf(const Folder& folder) const;
  static void AppendPath(const Folder& folder, std::string& path);
  void ForgetOrigins();

  // WatchTableFolders.cpp: the folders against the disk.
  std::string BelowRoot(const std::string& path) const;
  Place PlaceOf(const std::string& path) const;
  void Examine(Folder& parent, const std::string& name, Walk walk);
  void Adopt(Folder& parent, const std::string& name, OpenFolder handle, Walk walk);
  bool NeedsListing(const Folder& folder, const Walk& walk) const;
  Folder* Relocate(int watch, Folder& parent, const std::string& name, const OpenFolder& handle);
  bool CanMove(const Folder& folder, const Folder& parent, const OpenFolder& handle,
               std::optional<FolderListing>& listing) const;
  void ListRobbed();
  void List(Folder& folder, OpenFolder handle, const Walk& walk);
  void DetachUnlisted(Folder& folder, std::vector<std::string>& listed);
  void AdoptChild(Folder& folder, const OpenFolder& handle, const std::string& name,
                  const Walk& walk);
  void ReadDuringWalk();
  Folder* ChildOf(const Folder& parent, std::string_view name) const;
  Folder& Enter(Folder& parent, const std::string& name, int watch, const OpenFolder& handle);
  void Detach(Folder& folder);
  void Attach(std::unique_ptr<Folder> extracted, Folder& parent, const std::string& name);
  std::unique_ptr<Folder> Extract(Folder& folder);
  void NoteDeparture(const Folder& parent, const std::string& name, uint64_t serial);
  bool WasTaken(const Folder& parent, const std::string& name, const Folder* by) const;
  void DropOrphan(Folder& top);
  void Bury(Folder& folder);
  int ProbeWatch(const OpenFolder& handle);
  Folder* FindByWatch(int watch) const;
  void SetWatch(Folder& folder, int watch);
  bool UnsetWatch(Folder& folder);
  size_t LongestBelow(const Folder& folder) const;

  // WatchTableVisits.cpp: folders without a watch.
  void Missing(Folder& parent, const std::string& name, Failure failure);
  void RetryLater(Folder& folder, bool isUnlisted);
  bool IsUnwatched(const Folder& folder, int watch, const OpenFolder& handle) const;
  bool UpdateUnwatched(Folder& folder, const OpenFolder& handle, int watch);
  Folder* FindUnwatched(const FileIdentity& identity) const;

  Root& watched_;
  Inotify inotify_{Inotify::Interest::entries, watched_.path().starts_with('/')};
  std::string unread_;  // events read during a walk, to be applied after it
  size_t mostUnread_ = kMostWhileEntering;
  int walked_ = 0;  // folders, of all walks

  // The folders. One enters with its name (Enter, WatchRoot) and is an orphan while it has no place
  // (Detach, Attach). Cut drops the orphans that are left, Clear everything; Bury takes a dropped
  // folder out of every store below.
  std::unique_ptr<Folder> root_;
  std::unordered_map<Folder*, std::unique_ptr<Folder>> orphans_;  // by the top of each subtree
  std::unordered_map<int, Folder*> byWatch_;                      // the first of the twins
  size_t namesKept_ = 0;                                          // in all folders
  uint64_t serials_ = 0;                                          // given so far

  // Since the last batch: until Cut.
  KnownFolders marked_;  // those held back stay longer
  KnownFolders fresh_;   // entered
  KnownFolders moved_;   // relocated
  KnownFolders robbed_;  // others were taken from them; see ListRobbed
  // Until they are found, reported to have gone, or looked for some batches long: names of folders
  // that came and were not there, and how often they have been looked for since.
  std::unordered_map<Folder*, std::map<std::string, int>> inVain_;
  bool haveFoldersMoved_ = false;
  bool isOverflown_ = false;  // events were lost
  bool endsInMove_ = false;

  // Until some batches later: what the callback knows by another path. Origins leave
  // when their move has been reported (ForgetOrigins), departures with the second Cut.
  std::unordered_map<const Folder*, Origin> origins_;
  std::map<std::pair<uint64_t, std::string>, Departure> departures_;  // by parent and name
  uint32_t manyDepartures_ = 0;  // the last epoch in which they were too many to be kept apart

  Delivery delivery_;

  // Until they have a watch, or can be opened and listed.
  std::map<uint64_t, Unwatched> unwatched_;  // by serial
  std::set<uint64_t> toVisit_;               // those of them that can be opened
  uint64_t visited_ = 0;                     // the last of these
  Backoff<Folder*> unopened_;                // those that cannot be opened or listed
  Time now_{};                               // as of the last of these tries

  std::map<std::string, Place> mounts_;  // by what is mounted there; until ForgetMounts

  uint32_t epoch_ = 2;          // rises with every batch; 0 is long ago
  uint32_t repaired_ = 0;       // the last epoch with a repair: any event may have been lost before
  bool needsRepair_ = false;    // events were lost, or the last repair did not find the root
  bool haveLongPaths_ = false;  // so long that some entries could not be named
};
