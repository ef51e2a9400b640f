// What the tool wants to know of one file or folder, read with as few system calls as there can be.
// This header has a namesake for each system: the calls and the field names of `stat` differ.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <optional>

#include "FileIdentity.h"

struct FileStatus {
  FileIdentity identity;
  bool isFolder;      // a link is not followed and is no folder
  timespec modified;  // last data modification
  timespec created;   // last status change
  uint64_t size;      // bytes
};

// Reads the status of `name` relative to the open folder `folder` (AT_FDCWD: to the working
// directory). Links are not followed. Nothing when it cannot be read; errno then says why. Any
// thread. Inode numbers are not given again soon here, so they and the device make the identity.
inline std::optional<FileStatus> readStatus(int folder, const char* name) {
  struct stat status;
  if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  const bool isFolder = S_ISDIR(status.st_mode);
  const uint64_t device = mixedWith(0, static_cast<uint64_t>(status.st_dev));
  return FileStatus{{status.st_ino, mixedWith(device, isFolder ? 2 : 1)},
                    isFolder,
                    status.st_mtimespec,
                    status.st_ctimespec,
                    static_cast<uint64_t>(status.st_size)};
}
