// Where file systems are mounted. A mount or an unmount sends no event to the folders above it, so
// the stream compares this table with what it was and looks at the paths that it names.
//
// Owned by the stream; used by one thread at a time.
#pragma once

#include <set>
#include <string>
#include <tuple>

#include "Descriptor.h"

class MountTable {
 public:
  // Reads the table as it is now.
  MountTable();

  // The descriptor to wait on for POLLPRI; -1 when there is no such table.
  int number() const { return file_.number(); }

  // One line of the table: the path, without links in it, and what is mounted there, namely the
  // number of the mount, the device and the folder in it. The number alone is given to another
  // mount as soon as it is free.
  struct Mount {
    std::string path;
    std::string what;
    bool operator<(const Mount& other) const {
      return std::tie(path, what) < std::tie(other.path, other.what);
    }
  };
  using Mounts = std::set<Mount>;

  // Reads the table again. What has been mounted or unmounted since the last time; what has moved
  // with a folder above it is both.
  Mounts ReadChanges();

  // As last read.
  const Mounts& mounts() const { return mounts_; }

 private:
  Mounts Read();

  Descriptor file_;
  Mounts mounts_;
};
