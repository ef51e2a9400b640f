// The physical minimum that the benchmarks measure with: an open folder's entries, each looked at
// with lstat, and nothing kept.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>

inline int openBare(int parent, const char* name) {
  return openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
}

// Calls `visit(name, status)` for each entry of the open folder.
template <typename Visit>
void listBare(int folder, Visit visit) {
  alignas(dirent64) std::array<char, 32768> buffer;
  ssize_t size = 0;
  while ((size = getdents64(folder, buffer.data(), buffer.size())) > 0) {
    for (ssize_t at = 0; at < size;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + at);
      at += entry->d_reclen;
      const char* name = entry->d_name;
      if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
      struct stat status;
      if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0) visit(name, status);
    }
  }
}
