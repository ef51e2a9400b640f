// The entries of an open folder. This header has a namesake for each system.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

// Calls `visit(entry)` for each entry of the open folder from where its offset is, "." and ".."
// left out; `entry.d_name` is its name. False when the folder could not be read to its end; errno
// then says why. Sets `isAtOnce` to whether they are of one moment, which is not known here; if
// not, a name that went and came meanwhile may be listed twice. Any thread.
template <typename Visit>
bool eachEntry(int folder, Visit visit, bool* isAtOnce = nullptr) {
  if (isAtOnce != nullptr) *isAtOnce = false;
  const int own = dup(folder);
  DIR* entries = own < 0 ? nullptr : fdopendir(own);
  if (entries == nullptr) {
    const int error = errno;
    if (own >= 0) close(own);
    errno = error;
    return false;
  }
  const dirent* entry = nullptr;
  while (errno = 0, (entry = readdir(entries)) != nullptr) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") visit(*entry);
  }
  const int error = errno;
  closedir(entries);
  errno = error;
  return error == 0;
}
