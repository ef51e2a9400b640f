#include "Inotify.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

namespace {

// Without /proc there is no path to an open folder; but a thread with a working folder of its own
// can go there.
int addFromWithin(int inotify, const OpenFolder& folder, uint32_t mask) {
  thread_local const bool hasOwnWorkingFolder = unshare(CLONE_FS) == 0;
  if (!hasOwnWorkingFolder) return -1;
  const Descriptor back(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!back.isOpen() || fchdir(folder.number()) != 0) return -1;
  const int watch = inotify_add_watch(inotify, ".", mask);
  const int error = errno;
  const bool isBack = fchdir(back.number()) == 0;
  errno = error;
  return isBack ? watch : -1;
}

}  // namespace

Inotify::Inotify() : descriptor_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

int Inotify::Add(const OpenFolder& folder, uint32_t mask) {
  const std::string path = "/proc/self/fd/" + std::to_string(folder.number());
  const int watch = inotify_add_watch(number(), path.c_str(), mask | IN_ONLYDIR);
  if (watch >= 0 || errno != ENOENT) return watch;
  return addFromWithin(number(), folder, mask | IN_ONLYDIR);
}

void Inotify::Remove(int watch) { inotify_rm_watch(number(), watch); }

bool Inotify::Read(std::string& events, size_t limit) {
  alignas(inotify_event) std::array<char, 65536> buffer;
  static_assert(sizeof buffer > sizeof(inotify_event) + NAME_MAX + 1);
  size_t total = 0;
  while (total < limit) {
    const ssize_t size = read(number(), buffer.data(), buffer.size());
    if (size <= 0) break;
    events.append(buffer.data(), static_cast<size_t>(size));
    total += static_cast<size_t>(size);
  }
  return total > 0;
}
