#include "FileStatus.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <utility>

#include "Descriptor.h"

namespace {

// Of kernels newer than the headers may be: a mount number that is never given again (6.8), and
// handles of file systems that cannot be opened by them (6.5).
constexpr unsigned kUniqueMount = 0x4000;  // STATX_MNT_ID_UNIQUE
constexpr int kHandleFid = 0x200;          // AT_HANDLE_FID

int flagsFor(const char* name) { return AT_SYMLINK_NOFOLLOW | (*name == 0 ? AT_EMPTY_PATH : 0); }

uint64_t mountOf(const struct statx& status) {
#ifdef STATX_MNT_ID
  if ((status.stx_mask & kUniqueMount) != 0) return status.stx_mnt_id;
#endif
  return 0;
}

std::optional<bool> readIsOverlay(int folder, const char* name) {
  const Descriptor entry(*name == 0 ? -1 : openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (*name != 0 && !entry.isOpen()) return std::nullopt;
  struct statfs system;
  if (fstatfs(*name == 0 ? folder : entry.number(), &system) != 0) return std::nullopt;
  return system.f_type == OVERLAYFS_SUPER_MAGIC;
}

// Whether the file is on an overlay file system, where its first change gives it another time of
// birth. Asked once for each file system, which `key` identifies.
std::optional<bool> isOnOverlay(int folder, const char* name, uint64_t key) {
  thread_local std::unordered_map<uint64_t, bool> known;
  thread_local std::pair<uint64_t, bool> last{0, false};
  if (last.first == key) return last.second;
  auto found = known.find(key);
  if (found == known.end()) {
    const std::optional<bool> isOverlay = readIsOverlay(folder, name);
    if (!isOverlay) return std::nullopt;
    found = known.emplace(key, *isOverlay).first;
  }
  last = *found;
  return last.second;
}

// A number made of the file's handle: 0 where the file system has none. Nothing when it cannot be
// read; errno then says why.
std::optional<uint64_t> readHandle(int folder, const char* name) {
  union {
    struct file_handle handle;
    char room[sizeof(struct file_handle) + MAX_HANDLE_SZ];
  } buffer;
  const int flags = *name == 0 ? AT_EMPTY_PATH : 0;
  int mount = 0;
  int result = -1;
  for (const int kind : {kHandleFid, 0}) {
    buffer.handle.handle_bytes = MAX_HANDLE_SZ;
    result = name_to_handle_at(folder, name, &buffer.handle, &mount, flags | kind);
    if (result == 0 || errno != EINVAL) break;
  }
  if (result != 0) {
    const bool hasNone = errno == EOPNOTSUPP || errno == EINVAL || errno == EOVERFLOW ||
                         errno == ENOSYS || errno == EPERM;
    return hasNone ? std::optional<uint64_t>(0) : std::nullopt;
  }
  uint64_t sum = mixedWith(1, static_cast<uint64_t>(buffer.handle.handle_type));
  for (unsigned at = 0; at < buffer.handle.handle_bytes; at += sizeof(uint64_t)) {
    uint64_t piece = 0;
    std::memcpy(&piece, buffer.handle.f_handle + at,
                std::min<size_t>(sizeof piece, buffer.handle.handle_bytes - at));
    sum = mixedWith(sum, piece);
  }
  return sum;
}

// What the file has that no other file with its inode number has or had, as a number; 0 where the
// file system keeps no such thing. Nothing when it cannot be read; errno then says why.
std::optional<uint64_t> readMark(int folder, const char* name, const struct statx& status,
                                 uint64_t fileSystem) {
  if ((status.stx_mask & STATX_BTIME) != 0) {
    const std::optional<bool> isOverlay = isOnOverlay(folder, name, fileSystem);
    if (!isOverlay) return std::nullopt;
    if (!*isOverlay) {
      return mixedWith(static_cast<uint64_t>(status.stx_btime.tv_sec), status.stx_btime.tv_nsec);
    }
  }
  return readHandle(folder, name);
}

}  // namespace

std::optional<FileStatus> readStatus(int folder, const char* name) {
  struct statx status;
  if (statx(folder, name, flagsFor(name) | AT_NO_AUTOMOUNT,
            STATX_BASIC_STATS | STATX_BTIME | kUniqueMount, &status) != 0) {
    return std::nullopt;
  }
  const bool isFolder = S_ISDIR(status.stx_mode);
  const uint64_t mount = mountOf(status);
  const uint64_t fileSystem =
      mixedWith(mixedWith(0, mount), makedev(status.stx_dev_major, status.stx_dev_minor));
  const std::optional<uint64_t> mark = readMark(folder, name, status, fileSystem);
  if (!mark) return std::nullopt;
  const uint64_t generation = mixedWith(mixedWith(fileSystem, isFolder ? 2 : 1), *mark);
  return FileStatus{{status.stx_ino, generation},
                    isFolder,
                    {status.stx_mtime.tv_sec, static_cast<long>(status.stx_mtime.tv_nsec)},
                    {status.stx_ctime.tv_sec, static_cast<long>(status.stx_ctime.tv_nsec)},
                    status.stx_size};
}
