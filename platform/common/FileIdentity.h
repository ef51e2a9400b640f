// Which file something is, whatever its name: what the snapshot finds renames by, and what the
// event stream knows folders by that have no watch. Any thread.
#pragma once

#include <cstdint>

// The inode number alone is no identity: file systems give a free number to the next new file, and
// each file system has numbers of its own. `generation` tells such files apart. It combines the
// device, the mount, whether it is a folder, and what the file system has that lasts as long as the
// file: the time of its birth, or the kernel's file handle. FileStatus.h of each system makes it.
struct FileIdentity {
  uint64_t inode = 0;
  uint64_t generation = 0;

  // Two entries with one identity are names of one file, or one file before and after a rename.
  bool operator==(const FileIdentity&) const = default;
};

// The number with one more in it, for making a generation.
inline uint64_t mixedWith(uint64_t sum, uint64_t number) {
  sum = (sum ^ number) * 0x9E3779B97F4A7C15U;
  return sum ^ (sum >> 29);
}
