// A folder as the watch table knows it. The table owns every one of them and says when it enters
// and leaves; Delivery refers to them. The reader thread alone uses them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>

#include "EntryNames.h"

struct KnownFolder {
  // Why the folder is to be named.
  enum Mark : uint8_t {
    kLost = 1,      // an entry went
    kGained = 2,    // an entry came
    kWritten = 4,   // an entry was written or had its attributes changed
    kReplaced = 8,  // the folder is in another one's place
  };

  struct ByName {
    using is_transparent = void;
    using Pointer = std::unique_ptr<KnownFolder>;
    bool operator()(const Pointer& a, const Pointer& b) const { return a->name < b->name; }
    bool operator()(const Pointer& a, std::string_view b) const { return a->name < b; }
    bool operator()(std::string_view a, const Pointer& b) const { return a < b->name; }
  };

  KnownFolder* parent = nullptr;  // null for the root and for the top of an orphaned subtree
  std::string name;               // of the root: its path
  std::set<std::unique_ptr<KnownFolder>, ByName> children;
  KnownFolder* twin = nullptr;  // the next folder with the same watch: one folder under two paths,
                                // by a bind mount
  uint64_t serial = 0;          // never used twice
  int watch = -1;
  uint32_t born = 0;      // the epoch in which it was entered
  uint32_t touched = 0;   // the last epoch with an event about a subfolder, here or below
  uint32_t replaced = 0;  // the last epoch in which it took another one's place
  uint8_t marks = 0;

  // The names behind the marks; null where they are not known, or are too many, or there are no
  // marks. Enters with the first mark, and leaves with the marks or when one has no name.
  std::unique_ptr<EntryNames> names;
  bool isUnreadable = false;  // no permission to open it
  bool isUnlisted = false;    // could not be opened or listed, by a failure that passes
};

using KnownFolders = std::unordered_set<KnownFolder*>;

// How many names that folders left or took are kept apart, in each store of them.
constexpr size_t kMostNames = 1 << 16;
