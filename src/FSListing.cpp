#include "FSListing.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

constexpr size_t kMostRoomKept = 4096;  // entries that a builder keeps room for
constexpr size_t kFirstRoom = 16;       // entries that it has room for at first,
constexpr size_t kNameSize = 24;        // and of each name

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
  if (fixed_.capacity() == 0) {
    fixed_.reserve(kFirstRoom);
    ends_.reserve(kFirstRoom);
    names_.reserve(kFirstRoom * kNameSize);
  }
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

void FSListingBuilder::KeepLastOfEachName() {
  const FSListingIndex byName(entries(), FSListingIndex::Key::name);
  const auto comesAgain = [&](uint32_t i) { return byName.NextNamed(i) != FSListingIndex::kNone; };
  uint32_t first = 0;
  while (first < byName.size() && !comesAgain(first)) ++first;
  if (first == byName.size()) return;
  FSListingBuilder last;
  for (uint32_t i = 0; i < byName.size(); ++i) {
    if (!comesAgain(i)) last.Add(entries(), i);
  }
  *this = std::move(last);
}

void FSListingBuilder::Clear() {
  if (fixed_.capacity() > kMostRoomKept) *this = FSListingBuilder();
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
      isTaken_(base_->entries().count()),
      links_(base_->entries().count()),
      count_(base_->entries().count()) {
  const FSEntries entries = base_->entries();
  for (uint32_t i = 0; i < entries.count(); ++i) links_[i].hash = hashOf(entries.name(i));
  MakeBuckets();
}

// What the entry is in, and where.
std::pair<FSEntries, uint32_t> FSListingDraft::At(uint32_t position) const {
  const FSEntries base = base_->entries();
  if (position < base.count()) return {base, position};
  return {put_.entries(), position - base.count()};
}

uint32_t FSListingDraft::Match(uint32_t position, uint32_t hash, std::string_view name) const {
  for (; position != kNone; position = links_[position].next) {
    if (links_[position].hash != hash || isTaken_[position]) continue;
    const auto [entries, at] = At(position);
    if (entries.name(at) == name) break;
  }
  return position;
}

void FSListingDraft::Enter(uint32_t position) {
  links_[position].next = std::exchange(Bucket(links_[position].hash), position);
}

void FSListingDraft::MakeBuckets() {
  heads_.assign(std::bit_ceil(2 * links_.size() + 8), kNone);
  const uint32_t base = base_->entries().count();
  for (uint32_t i = base; i-- > 0;) Enter(i);
  for (uint32_t i = base; i < links_.size(); ++i) Enter(i);
}

std::optional<FileStatus> FSListingDraft::Find(std::string_view name) const {
  const uint32_t hash = hashOf(name);
  const uint32_t position = Match(heads_[hash & (heads_.size() - 1)], hash, name);
  if (position == kNone) return std::nullopt;
  const auto [entries, at] = At(position);
  return entries.status(at);
}

void FSListingDraft::Put(std::string_view name, const FileStatus& status) {
  Take(name);
  put_.Add(name, status);
  isTaken_.push_back(false);
  links_.push_back({hashOf(name), kNone});
  if (links_.size() > heads_.size()) {
    MakeBuckets();
  } else {
    Enter(static_cast<uint32_t>(links_.size() - 1));
  }
  ++count_;
  ++changes_;
}

std::optional<FileStatus> FSListingDraft::Take(std::string_view name) {
  std::optional<FileStatus> taken;
  const uint32_t hash = hashOf(name);
  for (uint32_t position = Match(Bucket(hash), hash, name); position != kNone;
       position = Match(links_[position].next, hash, name)) {
    const auto [entries, at] = At(position);
    if (!taken) taken = entries.status(at);
    isTaken_[position] = true;
    --count_;
    if (position < base_->entries().count()) ++changes_;
  }
  return taken;
}

FSListingPtr FSListingDraft::Finish() const {
  FSListingBuilder builder;
  for (uint32_t i = 0; i < isTaken_.size(); ++i) {
    if (isTaken_[i]) continue;
    const auto [entries, at] = At(i);
    builder.Add(entries, at);
  }
  return builder.Finish();
}
