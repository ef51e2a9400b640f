// The entries of an open folder, with as few system calls as there can be. This header has a
// namesake for each system.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <array>
#include <string_view>

// Calls `visit(entry)` for each entry of the open folder from where its offset is, "." and ".."
// left out; `entry.d_name` is its name. False when the folder could not be read to its end; errno
// then says why. Sets `isAtOnce` to whether they are of one moment; if not, a name that went and
// came meanwhile may be listed twice. Any thread.
template <typename Visit>
bool eachEntry(int folder, Visit visit, bool* isAtOnce = nullptr) {
  alignas(dirent64) std::array<char, 32768> buffer;
  ssize_t size = 0;
  int portions = 0;
  if (isAtOnce != nullptr) *isAtOnce = true;
  while ((size = getdents64(folder, buffer.data(), buffer.size())) > 0) {
    if (isAtOnce != nullptr) *isAtOnce = ++portions == 1;
    for (ssize_t at = 0; at < size;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + at);
      at += entry->d_reclen;
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") visit(*entry);
    }
  }
  return size == 0;
}
