// What the kernel may do at the very call: it refuses, hands over events in small pieces or loses
// them, and the disk changes under it.
#include "layer.h"

#include <array>
#include <cstring>
#include <utility>

#include "Descriptor.h"

std::function<int(const std::string& call)> beforeCall;
std::function<void()> beforeOpening;
Queue queue;
bool ignoresCase = false;

namespace {

namespace fs = std::filesystem;

fs::path pathOf(int file) {
  std::error_code ignored;
  return fs::read_symlink("/proc/self/fd/" + std::to_string(file), ignored);
}

bool fails(const char* call, int folder, const std::string& name = "") {
  if (!beforeCall) return false;
  const fs::path path = pathOf(folder);
  errno = beforeCall(call + (name.empty() ? path : path / name).string());
  return errno != 0;
}

// The name as it is in the folder, where the last letter may have the other case.
std::string spelled(int folder, std::string name) {
  const bool isOther = ignoresCase && !name.empty() &&
                       faccessat(folder, name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
  if (isOther) name.back() ^= 'a' ^ 'A';
  return name;
}

}  // namespace

extern "C" {
int __real_openat(int folder, const char* name, int flags, ...);
int __wrap_openat(int folder, const char* name, int flags, ...) {
  if (beforeOpening && (flags & O_DIRECTORY) != 0) beforeOpening();
  if (fails("open ", folder, name)) return -1;
  return __real_openat(folder, spelled(folder, name).c_str(), flags);
}

int __real_statx(int folder, const char* name, int flags, unsigned mask, struct statx* status);
int __wrap_statx(int folder, const char* name, int flags, unsigned mask, struct statx* status) {
  if (fails("status ", folder, name)) return -1;
  return __real_statx(folder, spelled(folder, name).c_str(), flags, mask, status);
}

int __real_fchdir(int folder);
int __wrap_fchdir(int folder) { return fails("enter ", folder) ? -1 : __real_fchdir(folder); }

int __real_inotify_add_watch(int inotify, const char* path, uint32_t mask);
int __wrap_inotify_add_watch(int inotify, const char* path, uint32_t mask) {
  const Descriptor folder(__real_openat(AT_FDCWD, path, O_PATH));
  if (!fails("watch ", folder.number())) return __real_inotify_add_watch(inotify, path, mask);
  const int error = errno;
  const int added = __real_inotify_add_watch(inotify, path, mask | IN_MASK_CREATE);
  if (added < 0) return __real_inotify_add_watch(inotify, path, mask);  // which needs no room
  inotify_rm_watch(inotify, added);
  errno = error;
  return -1;
}

ssize_t __real_getdents64(int folder, void* buffer, size_t size);
ssize_t __wrap_getdents64(int folder, void* buffer, size_t size) {
  if (fails("list ", folder)) {
    if (errno != kListAgain) return -1;
    lseek(folder, 0, SEEK_SET);
  }
  return __real_getdents64(folder, buffer, size);
}

ssize_t __real_read(int file, void* buffer, size_t size);
ssize_t __wrap_read(int file, void* buffer, size_t size) {
  if (pathOf(file) != "anon_inode:inotify") return __real_read(file, buffer, size);
  if (queue.reads-- <= 0) return -1;
  const ssize_t got = queue.size == 0 ? 0 : __real_read(file, buffer, std::min(size, queue.size));
  if (got < 0 || !std::exchange(queue.isFull, false)) return got;
  for (std::array<char, 65536> lost; __real_read(file, lost.data(), lost.size()) > 0;) {
  }
  const inotify_event overflow{.wd = -1, .mask = IN_Q_OVERFLOW, .cookie = 0, .len = 0};
  std::memcpy(static_cast<char*>(buffer) + got, &overflow, sizeof overflow);
  return got + static_cast<ssize_t>(sizeof overflow);
}
}
