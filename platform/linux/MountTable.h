// Where file systems are mounted. A mount or an unmount sends no event to the folders above it, so
// the stream compares this table with what it was and looks at the paths that it names.
//
// Owned by the stream; used by one thread at a time.
#pragma once

#include <set>
#include <string>
#include <utility>

#include "Inotify.h"

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
  using Mounts = std::set<std::pair<std::string, std::string>>;  // path and number
  Mounts Read();

  Descriptor file_;
  Mounts mounts_;
};
