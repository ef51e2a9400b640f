#include "FSListing.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

constexpr size_t kMostKept = 4096;  // entries that a builder keeps room for

// Inode numbers are often consecutive and often multiples; multiplying spreads both over the
// buckets.
uint32_t hashOf(const FileIdentity& file) {
  return static_cast<uint32_t>((file.inode * 0x9E3779B97F4A7C15U) >> 20);
}
uint32_t hashOf(std::string_view name) {
  return static_cast<uint32_t>(std::hash<std::string_view>()(name));
}

}  // namespace

timespec FSEntries::timeOf(int64_t packed) const {
  if (isOdd(packed)) return odd_[packed >> kTimeBits];
  return {packed >> kTimeBits, static_cast<long>(packed & kOdd)};
}

FileStatus FSEntries::status(uint32_t position) const {
  const Fixed& fixed = fixed_[position];
  return {identity(position), isFolder(position), timeOf(fixed.modified), timeOf(fixed.created),
          fixed.size};
}

bool FSEntries::isEqual(uint32_t position, const FSEntries& other, uint32_t otherPosition) const {
  const Fixed& a = fixed_[position];
  const Fixed& b = other.fixed_[otherPosition];
  return a.inode == b.inode && a.generation == b.generation && a.size == b.size &&
         a.modified == b.modified && a.created == b.created && !isOdd(a.modified) &&
         !isOdd(a.created) && isFolder(position) == other.isFolder(otherPosition) &&
         name(position) == other.name(otherPosition);
}

FSListing::FSListing(const FSEntries& entries) : count_(entries.count_) {
  if (count_ == 0) return;
  const size_t fixedSize = count_ * sizeof(FSEntries::Fixed), endsSize = count_ * sizeof(uint32_t);
  const size_t namesSize = entries.ends_[count_ - 1] & FSEntries::kEnd;
  block_ = std::make_unique_for_overwrite<char[]>(fixedSize + endsSize + namesSize);
  std::memcpy(block_.get(), entries.fixed_, fixedSize);
  std::memcpy(block_.get() + fixedSize, entries.ends_, endsSize);
  std::memcpy(block_.get() + fixedSize + endsSize, entries.names_, namesSize);
  int64_t oddCount = 0;
  for (uint32_t i = 0; i < count_; ++i) {
    for (const int64_t time : {entries.fixed_[i].modified, entries.fixed_[i].created}) {
      if (FSEntries::isOdd(time)) oddCount = std::max(oddCount, (time >> FSEntries::kTimeBits) + 1);
    }
  }
  if (oddCount == 0) return;
  odd_ = std::make_unique<timespec[]>(static_cast<size_t>(oddCount));
  std::copy_n(entries.odd_, oddCount, odd_.get());
}

FSEntries FSListing::entries() const {
  FSEntries entries;
  const size_t fixedSize = count_ * sizeof(FSEntries::Fixed);
  entries.fixed_ = reinterpret_cast<const FSEntries::Fixed*>(block_.get());
  entries.ends_ = reinterpret_cast<const uint32_t*>(block_.get() + fixedSize);
  entries.names_ = block_.get() + fixedSize + count_ * sizeof(uint32_t);
  entries.odd_ = odd_.get();
  entries.count_ = count_;
  return entries;
}

const FSListingPtr& emptyListing() {
  static const FSListingPtr empty = std::make_shared<const FSListing>(FSEntries());
  return empty;
}

void FSListingBuilder::Add(std::string_view name, const FileStatus& status) {
  names_ += name;
  ends_.push_back(static_cast<uint32_t>(names_.size()) |
                  (status.isFolder ? FSEntries::kFolder : 0));
  fixed_.push_back({status.identity.inode, status.identity.generation, status.size,
                    packed(status.modified), packed(status.created)});
}

void FSListingBuilder::Add(const FSEntries& entries, uint32_t position) {
  Add(entries.name(position), entries.status(position));
}

int64_t FSListingBuilder::packed(const timespec& time) {
  constexpr int64_t kRoom = int64_t{1} << (63 - FSEntries::kTimeBits);
  const int64_t second = time.tv_sec;
  if (second >= -kRoom && second < kRoom) {
    return second * (int64_t{1} << FSEntries::kTimeBits) | time.tv_nsec;
  }
  odd_.push_back(time);
  return static_cast<int64_t>(odd_.size() - 1) << FSEntries::kTimeBits | FSEntries::kOdd;
}

FSEntries FSListingBuilder::entries() const {
  FSEntries entries;
  entries.fixed_ = fixed_.data();
  entries.ends_ = ends_.data();
  entries.names_ = names_.data();
  entries.odd_ = odd_.data();
  entries.count_ = static_cast<uint32_t>(fixed_.size());
  return entries;
}

FSListingPtr FSListingBuilder::Finish() const {
  return fixed_.empty() ? emptyListing() : std::make_shared<const FSListing>(entries());
}

void FSListingBuilder::Clear() {
  if (fixed_.capacity() > kMostKept) *this = FSListingBuilder();
  fixed_.clear();
  ends_.clear();
  names_.clear();
  odd_.clear();
}

FSListingIndex::FSListingIndex(const FSEntries& entries, Key key)
    : entries_(entries),
      heads_(std::bit_ceil(size_t{entries.count()} + 1), kNone),
      links_(entries.count()) {
  for (uint32_t i = entries.count(); i-- > 0;) {
    const uint32_t hash = key == Key::name ? hashOf(entries.name(i)) : hashOf(entries.identity(i));
    uint32_t& head = heads_[hash & (heads_.size() - 1)];
    links_[i] = {hash, head};
    head = i;
  }
}

uint32_t FSListingIndex::FirstNamed(std::string_view name) const {
  const uint32_t hash = hashOf(name);
  return MatchName(Bucket(hash), hash, name);
}

uint32_t FSListingIndex::NextNamed(uint32_t position) const {
  return MatchName(links_[position].next, links_[position].hash, entries_.name(position));
}

uint32_t FSListingIndex::FirstOf(const FileIdentity& file, bool isFolder) const {
  const uint32_t hash = hashOf(file);
  return MatchFile(Bucket(hash), hash, file, isFolder);
}

uint32_t FSListingIndex::NextOf(uint32_t position) const {
  return MatchFile(links_[position].next, links_[position].hash, entries_.identity(position),
                   entries_.isFolder(position));
}

uint32_t FSListingIndex::MatchName(uint32_t position, uint32_t hash, std::string_view name) const {
  while (position != kNone && (links_[position].hash != hash || entries_.name(position) != name)) {
    position = links_[position].next;
  }
  return position;
}

uint32_t FSListingIndex::MatchFile(uint32_t position, uint32_t hash, const FileIdentity& file,
                                   bool isFolder) const {
  while (position != kNone &&
         (links_[position].hash != hash || entries_.identity(position) != file ||
          entries_.isFolder(position) != isFolder)) {
    position = links_[position].next;
  }
  return position;
}

FSListingDraft::FSListingDraft(FSListingPtr base)
    : base_(std::move(base)),
      byName_(base_->entries(), FSListingIndex::Key::name),
      isTaken_(base_->entries().count()),
      count_(base_->entries().count()) {}

std::optional<FileStatus> FSListingDraft::Find(std::string_view name) const {
  if (const auto put = putByName_.find(name); put != putByName_.end()) {
    return put->second->second;
  }
  const uint32_t position = byName_.FirstNamed(name);
  if (position == FSListingIndex::kNone || isTaken_[position]) return std::nullopt;
  return base_->entries().status(position);
}

void FSListingDraft::Put(std::string_view name, const FileStatus& status) {
  Take(name);
  Entry& entry = put_.emplace_back(name, status);
  putByName_.insert_or_assign(entry.first, &entry);
  ++count_;
  ++changes_;
}

std::optional<FileStatus> FSListingDraft::Take(std::string_view name) {
  std::optional<FileStatus> taken;
  if (const auto put = putByName_.find(name); put != putByName_.end()) {
    taken = std::exchange(put->second->second, std::nullopt);
    if (taken) --count_;
  }
  for (uint32_t at = byName_.FirstNamed(name); at != FSListingIndex::kNone;
       at = byName_.NextNamed(at)) {
    if (isTaken_[at]) continue;
    if (!taken) taken = base_->entries().status(at);
    isTaken_[at] = true;
    --count_;
    ++changes_;
  }
  return taken;
}

FSListingPtr FSListingDraft::Finish() const {
  FSListingBuilder builder;
  for (uint32_t i = 0; i < isTaken_.size(); ++i) {
    if (!isTaken_[i]) builder.Add(base_->entries(), i);
  }
  for (const auto& [name, status] : put_) {
    if (status) builder.Add(name, *status);
  }
  return builder.Finish();
}
