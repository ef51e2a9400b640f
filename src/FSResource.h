// The values that every other part passes around: what is known of one file or folder (FSResource),
// one change to report (FSChangedResource), and ordered lists of records with their lookups.
//
// Records are immutable once made and shared: the snapshot, the listings and the watched folder's
// own record may all hold the same one, and the last to let go frees it. None of these types has a
// lock of its own.
#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "FSPath.h"

// One file or folder as it was when it was examined.
struct FSResource {
  uint64_t inode;
  FSPath path;
  bool isFolder;
  timespec created;   // last status change, not the birth time; only its seconds are used
  timespec modified;  // last data modification; only its seconds are used
  uint64_t size;      // bytes
  FSText oldPath;     // of a rename: the path before it; else empty
  int64_t birth = 0;  // nanoseconds since 1970, 0 when not known; tells files apart, never printed

  // The two times come in the reverse of their declared order.
  FSResource(uint64_t inode, FSPath path, bool isFolder, timespec modified, timespec created,
             uint64_t size, FSText oldPath);
};

using FSResourcePtr = std::shared_ptr<const FSResource>;
using FSResourceList = std::vector<FSResourcePtr>;

// A copy of the record with another path.
FSResourcePtr withPath(const FSResource& resource, FSPath path);

struct FSSavedLists;

// One change to report: an action word and a copy of the resource's fields.
struct FSChangedResource : FSResource {
  std::string_view action;  // a word of the program, such as "create"

  // Of a folder's deletion: what the snapshot held of the folder, in case it has only moved. May be
  // null.
  std::shared_ptr<FSSavedLists> saved;

  // The text of the action must outlive the record.
  FSChangedResource(std::string_view action, const FSResource& resource);
};

// The changes of one batch. They stay where they are while it grows.
using FSChangeList = std::deque<FSChangedResource>;

// Whether two records speak of the same file. Linux gives a deleted file's inode number to the next
// file made, so the birth time has to agree as well where both records have one.
inline bool isSameFile(const FSResource& a, const FSResource& b) {
  return a.inode == b.inode && (a.birth == b.birth || a.birth == 0 || b.birth == 0);
}

// Positions in a list by path or by inode, made in one pass over the list, which must outlive it
// unchanged. Equal keys are met in the list's order.
class FSResourceIndex {
 public:
  enum class Key { path, inode };
  static constexpr uint32_t kNone = UINT32_MAX;

  FSResourceIndex(const FSResourceList& list, Key key);

  // The first position with the path, or the next one with the same path after `position`; kNone at
  // the end. REQUIRES: Key::path.
  uint32_t FirstByPath(const FSPath& path) const;
  uint32_t NextByPath(uint32_t position) const;

  // The first position with the inode, or the next one with the same inode; kNone at the end.
  // REQUIRES: Key::inode.
  uint32_t FirstByINode(uint64_t inode) const;
  uint32_t NextByINode(uint32_t position) const;

 private:
  // By position: its key's hash, so that only what is sought has to be looked at, and the next
  // position in the same bucket.
  struct Link {
    uint32_t hash;
    uint32_t next;
  };

  uint32_t Bucket(uint32_t hash) const { return heads_[hash & (heads_.size() - 1)]; }
  uint32_t MatchPath(uint32_t position, uint32_t hash, const FSPath& path) const;
  uint32_t MatchINode(uint32_t position, uint32_t hash, uint64_t inode) const;

  const FSResourceList& list_;
  std::vector<uint32_t> heads_;  // size is a power of two
  std::vector<Link> links_;
};

// An ordered list of records. `count` always equals the length of `items`. A position that is not
// there is -1, a record that is not there null. Paths compare byte by byte.
struct FSResourceArray {
  FSResourceList items;
  uint32_t count = 0;

  FSResourceArray() = default;
  explicit FSResourceArray(FSResourceList list);

  void Append(FSResourcePtr resource);
  void Remove(const FSResourcePtr& resource);  // every entry that is this very record
  void AppendList(FSResourceList list);
  uint32_t Count() const { return count; }
  FSResourcePtr Get(unsigned int index) const;

  // The first entry with the record's path, or inode; no other field is looked at.
  int32_t IndexOfByPath(const FSResource& resource) const;
  int32_t IndexOfByINode(const FSResource& resource) const;

  // The entries, in order, whose path equals, sorts after or sorts before the reference's, as
  // selected.
  FSResourceList CompareByPath(const FSResource& reference, bool selectEqual, bool selectGreater,
                               bool selectLess) const;
};
