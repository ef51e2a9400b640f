// What the tool wants to know of one file or folder, read with as few system calls as there can be.
// This header has a namesake for each system: the calls and the field names of `stat` differ.
#pragma once

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
// directory), or that of the folder itself where the name is empty. Links are not followed. Nothing
// when it cannot be read; errno then says why. Any thread.
std::optional<FileStatus> readStatus(int folder, const char* name);
