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
  int64_t birth;      // always 0: inode numbers are not reused soon here, so they identify a file
  uint64_t size;      // bytes
};

// Reads the status of `name` relative to the open folder `folder` (AT_FDCWD: to the working
// directory). Links are not followed. Nothing when it cannot be read; errno then tells why. Any
// thread.
inline std::optional<FileStatus> readStatus(int folder, const char* name) {
  struct stat status;
  if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  return FileStatus{status.st_ino,
                    S_ISDIR(status.st_mode),
                    status.st_mtimespec,
                    status.st_ctimespec,
                    0,
                    static_cast<uint64_t>(status.st_size)};
}
