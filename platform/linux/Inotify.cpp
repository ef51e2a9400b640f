#include "Inotify.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <functional>
#include <string_view>
#include <utility>

#include "FolderEntries.h"

namespace {

bool isFolder(int parent, const dirent64& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
  struct stat status;
  return fstatat(parent, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISDIR(status.st_mode);
}

uint64_t mixed(uint64_t bits) {
  bits *= 0x9E3779B97F4A7C15U;
  return bits ^ (bits >> 29);
}

template <typename Visit>
bool eachEntryFromTheStart(const Descriptor& folder, Visit visit) {
  lseek(folder.number(), 0, SEEK_SET);
  return eachEntry(folder.number(), visit);
}

// An empty name stands for the folder itself. A time without nanoseconds is taken for one kept in
// steps of up to two seconds.
bool isChangedSince(int folder, const char* name, const timespec& since) {
  struct statx status;
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (*name == 0 ? AT_EMPTY_PATH : 0);
  if (statx(folder, name, flags, STATX_CTIME, &status) != 0) return true;
  const auto& changed = status.stx_ctime;
  if (changed.tv_nsec == 0) return changed.tv_sec + 2 > since.tv_sec;
  return changed.tv_sec > since.tv_sec ||
         (changed.tv_sec == since.tv_sec && changed.tv_nsec >= since.tv_nsec);
}

}  // namespace

Descriptor::~Descriptor() {
  if (isOpen()) close(number_);
}

Descriptor::Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(number_, other.number_);
  return *this;
}

Descriptor openFolder(int parent, const std::string& name, bool followLink) {
  return Descriptor(
      openat(parent, name.c_str(),
             O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK | (followLink ? 0 : O_NOFOLLOW)));
}

FolderIdentity identityOf(const Descriptor& folder) {
  struct statx status;
  if (statx(folder.number(), "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &status) != 0) return {};
  FolderIdentity identity;
  identity.device = makedev(status.stx_dev_major, status.stx_dev_minor);
  identity.inode = status.stx_ino;
  if ((status.stx_mask & STATX_BTIME) != 0) {
    identity.birth = status.stx_btime.tv_sec * 1000000000 + status.stx_btime.tv_nsec;
  }
  return identity;
}

FolderListing listFolder(const Descriptor& folder) {
  FolderListing listing;
  listing.isWhole = eachEntryFromTheStart(folder, [&](const dirent64& entry) {
    listing.isEmpty = false;
    if (isFolder(folder.number(), entry)) listing.subfolders.emplace_back(entry.d_name);
  });
  return listing;
}

FolderChange changedSince(const Descriptor& folder, const timespec& since) {
  FolderChange change;
  change.hasOtherEntries = isChangedSince(folder.number(), "", since);
  eachEntryFromTheStart(folder, [&](const dirent64& entry) {
    // A subfolder's times move with what happens in it, which is not this folder's affair.
    if (change.hasWrittenEntries || isFolder(folder.number(), entry)) return;
    change.hasWrittenEntries = isChangedSince(folder.number(), entry.d_name, since);
  });
  return change;
}

uint64_t fingerprintOf(const Descriptor& folder) {
  uint64_t sum = 0;
  eachEntryFromTheStart(folder, [&](const dirent64& entry) {
    struct statx status;
    if (statx(folder.number(), entry.d_name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
              STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
      return;
    }
    uint64_t hash = std::hash<std::string_view>()(entry.d_name);
    hash = mixed(hash ^ status.stx_ino);
    hash = mixed(hash ^ static_cast<uint64_t>(status.stx_btime.tv_sec));  // numbers are reused
    hash = mixed(hash ^ status.stx_btime.tv_nsec);
    if (!S_ISDIR(status.stx_mode)) {
      hash = mixed(hash ^ static_cast<uint64_t>(status.stx_ctime.tv_sec));
      hash = mixed(hash ^ status.stx_ctime.tv_nsec);
    }
    sum += hash;  // in whatever order they are listed
  });
  return sum;
}

Inotify::Inotify() : descriptor_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

int Inotify::Add(const Descriptor& folder, uint32_t mask) {
  const std::string handle = "/proc/self/fd/" + std::to_string(folder.number());
  return inotify_add_watch(number(), handle.c_str(), mask | IN_ONLYDIR);
}

void Inotify::Remove(int watch) { inotify_rm_watch(number(), watch); }

bool Inotify::Read(std::string& events, size_t limit) {
  alignas(inotify_event) std::array<char, 65536> buffer;
  static_assert(sizeof buffer > sizeof(inotify_event) + NAME_MAX + 1);
  size_t total = 0;
  while (total < limit) {
    const ssize_t size = read(number(), buffer.data(), buffer.size());
    if (size <= 0) break;
    events.append(buffer.data(), static_cast<size_t>(size));
    total += static_cast<size_t>(size);
  }
  return total > 0;
}
