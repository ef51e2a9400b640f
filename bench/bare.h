// The physical minimum that the benchmarks measure with: an open folder's entries, each looked at
// with lstat, and nothing kept.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include "FolderEntries.h"

inline int openBare(int parent, const char* name) {
  return openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
}

// Calls `visit(name, status)` for each entry of the open folder.
template <typename Visit>
void listBare(int folder, Visit visit) {
  eachEntry(folder, [&](const auto& entry) {
    struct stat status;
    if (fstatat(folder, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
      visit(entry.d_name, status);
    }
  });
}
