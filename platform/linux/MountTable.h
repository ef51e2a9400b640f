// Where file systems are mounted. A mount or an unmount sends no event to the folders above it, so
// the stream compares this table with what it was and looks at the paths that it names.
//
// Owned by the stream; used by one thread at a time.
#pragma once

#include <set>
#include <string>
#include <utility>

#include "Descriptor.h"

class MountTable {
 public:
  // Reads the table as it is now.
  MountTable();

  // The descriptor to wait on for POLLPRI; -1 when there is no such table.
  int number() const { return file_.number(); }

  // Reads the table again. The paths, without links in them, where something was mounted or
  // unmounted since the last time.
  std::set<std::string> ReadChanges();

 private:
  // The path, and what is mounted there: the number of the mount, the device and the folder in it.
  // The number alone is given to another mount as soon as it is free.
  using Mounts = std::set<std::pair<std::string, std::string>>;
  Mounts Read();

  Descriptor file_;
  Mounts mounts_;
};
