// What the tool wants to know of one file or folder, read with one system call. This header has a
// namesake for each system: the calls and the field names of `stat` differ between them.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <optional>

struct FileStatus {
  uint64_t inode;
  bool isFolder;      // a link is not followed and is no folder
  timespec modified;  // last data modification
  timespec created;   // last status change
  int64_t birth;      // nanoseconds since 1970; 0 where the file system keeps no birth time
  uint64_t size;      // bytes
};

// Reads the status of `name` relative to the open folder `folder` (AT_FDCWD: to the working
// directory). Links are not followed. Nothing when it cannot be read; errno then tells why. Any
// thread.
inline std::optional<FileStatus> readStatus(int folder, const char* name) {
  struct statx status;
  if (statx(folder, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME,
            &status) != 0) {
    return std::nullopt;
  }
  int64_t birth = 0;
  if ((status.stx_mask & STATX_BTIME) != 0) {
    birth = status.stx_btime.tv_sec * 1000000000 + status.stx_btime.tv_nsec;
  }
  return FileStatus{status.stx_ino,
                    S_ISDIR(status.stx_mode),
                    {status.stx_mtime.tv_sec, static_cast<long>(status.stx_mtime.tv_nsec)},
                    {status.stx_ctime.tv_sec, static_cast<long>(status.stx_ctime.tv_nsec)},
                    birth,
                    status.stx_size};
}
