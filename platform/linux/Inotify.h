// An inotify instance, and the only place that knows the kernel's event masks: what is asked for
// and what an event means is one table in Inotify.cpp.
//
// Owned by the watch table (for the tree) and by the root chain (for the way down to it). One
// thread at a time. What fails says so by its value and leaves errno set.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Descriptor.h"
#include "OpenFolder.h"

// One event.
struct Event {
  enum class Kind : uint8_t {
    created,    // an entry was made here
    movedHere,  // the second half of a move, or an entry from outside
    deleted,
    movedAway,   // the first half of a move, or of an entry that left the tree
    written,     // an entry's contents
    attributes,  // an entry's, or without a name the folder's own
    itself,      // the folder was deleted or moved
    watchGone,   // the folder was deleted, or the watch was removed
    unmounted,   // with the folder's file system; watchGone follows
    overflow,    // events were lost; of no folder
  };

  int watch = -1;
  Kind kind = Kind::itself;
  bool isFolder = false;  // the entry
  std::string_view name;  // the entry's, part of the buffer; empty where the event has none

  bool HasCome() const { return kind == Kind::created || kind == Kind::movedHere; }
  bool HasGone() const { return kind == Kind::deleted || kind == Kind::movedAway; }
  bool HasMoved() const { return kind == Kind::movedHere || kind == Kind::movedAway; }
};

// Takes the first event off the buffer that Inotify::Read filled; nothing when it is empty.
std::optional<Event> takeEvent(std::string_view& events);

class Inotify {
 public:
  // What the instance asks for: all that happens to entries, or only what happens to names and to
  // the folder itself.
  enum class Interest : uint8_t { entries, names };

  // `mayEnter`: a thread may be in the folders that it watches for a moment, which is quicker. Not
  // where paths depend on the working folder; then only without /proc.
  Inotify(Interest interest, bool mayEnter);

  bool isOpen() const { return descriptor_.isOpen(); }
  int number() const { return descriptor_.number(); }

  // Watches the open folder, wherever its path leads meanwhile. The watch descriptor, the same as
  // before for a folder that is watched already, or -1. The calling thread may get a working folder
  // of its own, the one that was the process's when this was made.
  int Add(const OpenFolder& folder);
  void Remove(int watch);

  // Appends what the kernel's queue holds now to `events`. False when there was nothing.
  bool Read(std::string& events);

 private:
  std::optional<int> AddFromWithin(const OpenFolder& folder);

  const uint32_t mask_;
  const bool mayEnter_;
  Descriptor descriptor_;
  const Descriptor workingFolder_;  // where threads return to
};
