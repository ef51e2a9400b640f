// What one folder held at one reading. An entry knows its name, the folder its path: so a folder
// that moves takes its listing along unchanged, and nothing is kept twice for its entries.
//
// FSListing is immutable and shared; FSListingBuilder makes one; FSEntries is the view of both.
// FSListingIndex finds entries by name or by identity, FSListingDraft changes a listing entry
// by entry. The snapshot (FSTree) keeps one listing for each folder, some millions of entries in
// all.
//
// Positions count from 0 in the order in which the folder listed its entries. One thread at a time,
// but for an FSListing itself, which any thread may read.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FileStatus.h"

// A view of entries, valid as long as what it was taken from is there and unchanged.
class FSEntries {
 public:
  FSEntries() = default;

  uint32_t count() const { return count_; }

  // REQUIRES: position < count(), and so for the others.
  std::string_view name(uint32_t position) const {
    const uint32_t begin = position == 0 ? 0 : ends_[position - 1] & kEnd;
    return {names_ + begin, (ends_[position] & kEnd) - begin};
  }
  bool isFolder(uint32_t position) const { return (ends_[position] & kFolder) != 0; }
  FileIdentity identity(uint32_t position) const {
    return {fixed_[position].inode, fixed_[position].generation};
  }
  timespec modified(uint32_t position) const { return timeOf(fixed_[position].modified); }
  FileStatus status(uint32_t position) const;

  // Whether two entries are of one file: kind and identity agree.
  bool isSameFile(uint32_t position, const FSEntries& other, uint32_t otherPosition) const {
    return identity(position) == other.identity(otherPosition) &&
           isFolder(position) == other.isFolder(otherPosition);
  }

  // Whether two entries agree in name and in everything that is known of them. Entries with times
  // out of the packed range never do: they are compared in detail.
  bool isEqual(uint32_t position, const FSEntries& other, uint32_t otherPosition) const;

 private:
  friend class FSListing;
  friend class FSListingBuilder;

  // Of one entry. The times are packed: the lower 30 bits are the nanoseconds, the upper bits the
  // seconds. Where the seconds do not fit, the lower bits are kOdd and the upper bits the position
  // of the time in odd_.
  struct Fixed {
    uint64_t inode;
    uint64_t generation;
    uint64_t size;
    int64_t modified;
    int64_t created;
  };
  static constexpr int kTimeBits = 30;
  static constexpr int64_t kOdd = (1 << kTimeBits) - 1;  // more nanoseconds than there are
  static constexpr uint32_t kFolder = 1U << 31;          // in ends_, beside the end of the name
  static constexpr uint32_t kEnd = kFolder - 1;

  static bool isOdd(int64_t packed) { return (packed & kOdd) == kOdd; }
  timespec timeOf(int64_t packed) const;

  const Fixed* fixed_ = nullptr;
  const uint32_t* ends_ = nullptr;  // by position: where the name ends in names_
  const char* names_ = nullptr;
  const timespec* odd_ = nullptr;
  uint32_t count_ = 0;
};

class FSListing {
 public:
  // A copy of the entries.
  explicit FSListing(const FSEntries& entries);
  ~FSListing() = default;
  FSListing(const FSListing&) = delete;
  FSListing& operator=(const FSListing&) = delete;

  FSEntries entries() const;

 private:
  const uint32_t count_;
  std::unique_ptr<char[]> block_;  // of all entries: what is fixed, the ends, the names
  std::unique_ptr<timespec[]> odd_;
};
using FSListingPtr = std::shared_ptr<const FSListing>;

// The listing of a folder without entries; the same one always.
const FSListingPtr& emptyListing();

class FSListingBuilder {
 public:
  void Add(std::string_view name, const FileStatus& status);
  void Add(const FSEntries& entries, uint32_t position);

  // What has been added so far; valid until more is added.
  FSEntries entries() const;
  FSListingPtr Finish() const;

  // Takes out each entry whose name comes again later.
  void KeepLastOfEachName();

  // Begins anew, and keeps its memory up to a size that most folders need.
  void Clear();

 private:
  int64_t packed(const timespec& time);

  std::vector<FSEntries::Fixed> fixed_;
  std::vector<uint32_t> ends_;
  std::string names_;
  std::vector<timespec> odd_;
};

// Positions of entries by name or by identity, made in one pass. Equal keys are found in the
// entries' order. The entries must outlive it unchanged.
class FSListingIndex {
 public:
  enum class Key { name, identity };
  static constexpr uint32_t kNone = UINT32_MAX;

  FSListingIndex(const FSEntries& entries, Key key);

  uint32_t size() const { return entries_.count(); }

  // The first position with the name, or the next one after `position` with the same name; kNone at
  // the end. REQUIRES: Key::name.
  uint32_t FirstNamed(std::string_view name) const;
  uint32_t NextNamed(uint32_t position) const;

  // The first position of the file, or the next one of the same file; kNone at the end. REQUIRES:
  // Key::identity.
  uint32_t FirstOf(const FileIdentity& file, bool isFolder) const;
  uint32_t NextOf(uint32_t position) const;

 private:
  // By position: its key's hash, so that only likely matches are compared, and the next position in
  // the same bucket.
  struct Link {
    uint32_t hash;
    uint32_t next;
  };

  uint32_t Bucket(uint32_t hash) const { return heads_[hash & (heads_.size() - 1)]; }
  uint32_t MatchName(uint32_t position, uint32_t hash, std::string_view name) const;
  uint32_t MatchFile(uint32_t position, uint32_t hash, const FileIdentity& file,
                     bool isFolder) const;

  const FSEntries entries_;
  std::vector<uint32_t> heads_;  // size is a power of two
  std::vector<Link> links_;
};

// A listing that is being changed. Its entries are those of the base that were not taken out, then
// those that were put in; positions count in this order.
class FSListingDraft {
 public:
  explicit FSListingDraft(FSListingPtr base);

  // The entry of this name; nothing when there is none.
  std::optional<FileStatus> Find(std::string_view name) const;

  // Takes out what has the name, and puts the entry in.
  void Put(std::string_view name, const FileStatus& status);

  // Takes out every entry of this name, and returns the first; nothing when there is none.
  std::optional<FileStatus> Take(std::string_view name);

  uint32_t count() const { return count_; }

  // An upper bound of the entries in which it differs from its base; 0 only when it does not.
  size_t changes() const { return changes_; }
  FSListingPtr Finish() const;

 private:
  // By position: the hash of the name, and the next position in the same bucket.
  struct Link {
    uint32_t hash;
    uint32_t next;
  };
  static constexpr uint32_t kNone = UINT32_MAX;

  std::pair<FSEntries, uint32_t> At(uint32_t position) const;
  uint32_t Match(uint32_t position, uint32_t hash, std::string_view name) const;
  uint32_t& Bucket(uint32_t hash) { return heads_[hash & (heads_.size() - 1)]; }
  void Enter(uint32_t position);
  void MakeBuckets();

  const FSListingPtr base_;
  FSListingBuilder put_;
  std::vector<bool> isTaken_;    // by position
  std::vector<uint32_t> heads_;  // by bucket: the last one put in, or the first of the base; size
                                 // is a power of two
  std::vector<Link> links_;
  uint32_t count_;
  size_t changes_ = 0;
};
