// The kernel as the stream sees it: open folders, their listings, and an inotify instance.
// Everything here is used by one thread at a time; what fails says so by its value and leaves errno
// set.
#pragma once

#include <sys/inotify.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

// Owns a descriptor and closes it.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept;
  Descriptor& operator=(Descriptor&& other) noexcept;

  bool isOpen() const { return number_ >= 0; }
  int number() const { return number_; }

 private:
  int number_;
};

// Which folder a path or handle stands for. Inode numbers are reused at once on some file systems,
// so the birth time belongs to it; a watch descriptor is surer still.
struct FolderIdentity {
  uint64_t device = 0;
  uint64_t inode = 0;
  int64_t birth = 0;  // nanoseconds since 1970; 0 where not kept
  bool operator==(const FolderIdentity&) const = default;
};

// Opens the folder for listing. The name is relative to `parent`, or to the working directory for
// AT_FDCWD.
Descriptor openFolder(int parent, const std::string& name, bool followLink = false);

// Who the open folder is.
FolderIdentity identityOf(const Descriptor& folder);

// What an open folder holds, as far as the stream cares.
struct FolderListing {
  std::vector<std::string> subfolders;
  bool isEmpty = true;
  bool isWhole = true;  // else the folder could not be read to its end
};
FolderListing listFolder(const Descriptor& folder);

// What has changed in an open folder since the time, going by status-change times, which nobody can
// set back. A file system that keeps them coarsely may claim more than there was.
struct FolderChange {
  bool hasOtherEntries = false;
  bool hasWrittenEntries = false;
};
FolderChange changedSince(const Descriptor& folder, const timespec& since);

// A number that changes when an entry of the open folder comes, goes, is written or has its
// attributes changed. Of subfolders only their coming and going counts.
uint64_t fingerprintOf(const Descriptor& folder);

class Inotify {
 public:
  Inotify();

  bool isOpen() const { return descriptor_.isOpen(); }
  int number() const { return descriptor_.number(); }

  // Watches the open folder, whatever its path is by now. The watch descriptor, the same as before
  // for a folder that is watched already, or -1.
  int Add(const Descriptor& folder, uint32_t mask);
  void Remove(int watch);

  // Appends what the kernel's queue holds, at most about `limit` bytes, to `events`. False when
  // there was nothing.
  bool Read(std::string& events, size_t limit);

 private:
  Descriptor descriptor_;
};

// Calls `visit(event, name)` for each event in the buffer. The name is part of the buffer.
template <typename Visit>
void eachEvent(const std::string& events, Visit visit) {
  for (size_t at = 0; at + sizeof(inotify_event) <= events.size();) {
    inotify_event event;
    std::memcpy(&event, events.data() + at, sizeof event);
    const char* name = events.data() + at + sizeof event;
    visit(event, std::string_view(name, strnlen(name, event.len)));
    at += sizeof event + event.len;
  }
}
