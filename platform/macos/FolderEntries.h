// The entries of an open folder. This header has a namesake for each system.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <string_view>

// Calls `visit(entry)` for each entry of the open folder from where it stands, "." and ".." left
// out; `entry.d_name` is its name. Ends early when the folder cannot be read on. Any thread.
template <typename Visit>
void eachEntry(int folder, Visit visit) {
  const int own = dup(folder);
  DIR* entries = own < 0 ? nullptr : fdopendir(own);
  if (entries == nullptr) {
    if (own >= 0) close(own);
    return;
  }
  while (const dirent* entry = readdir(entries)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") visit(*entry);
  }
  closedir(entries);
}
