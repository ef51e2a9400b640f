#include "Inotify.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

using Kind = Event::Kind;

// Who asks for an event. The kernel sends those that nobody asks for with any watch.
enum : uint8_t { kNobody = 0, kEntries = 1, kNames = 2 };

constexpr struct {
  uint32_t mask;
  Kind kind;
  uint8_t askedBy;
} kMeanings[] = {
    {IN_CREATE, Kind::created, kEntries | kNames},
    {IN_MOVED_TO, Kind::movedHere, kEntries | kNames},
    {IN_DELETE, Kind::deleted, kEntries | kNames},
    {IN_MOVED_FROM, Kind::movedAway, kEntries | kNames},
    {IN_MODIFY, Kind::written, kEntries},
    {IN_CLOSE_WRITE, Kind::written, kEntries},  // a mapping's writes have no other event
    {IN_ATTRIB, Kind::attributes, kEntries | kNames},
    {IN_DELETE_SELF, Kind::itself, kNames},
    {IN_MOVE_SELF, Kind::itself, kNames},
    {IN_IGNORED, Kind::watchGone, kNobody},
    {IN_UNMOUNT, Kind::unmounted, kNobody},
    {IN_Q_OVERFLOW, Kind::overflow, kNobody},
};

constexpr uint32_t maskFor(Inotify::Interest interest) {
  const bool isEntries = interest == Inotify::Interest::entries;
  uint32_t mask = IN_ONLYDIR | (isEntries ? IN_EXCL_UNLINK : 0);
  for (const auto& meaning : kMeanings) {
    if ((meaning.askedBy & (isEntries ? kEntries : kNames)) != 0) mask |= meaning.mask;
  }
  return mask;
}

Kind kindOf(uint32_t mask) {
  for (const auto& meaning : kMeanings) {
    if ((mask & meaning.mask) != 0) return meaning.kind;
  }
  return Kind::itself;
}

}  // namespace

std::optional<Event> takeEvent(std::string_view& events) {
  inotify_event event;
  if (events.size() < sizeof event) return std::nullopt;
  std::memcpy(&event, events.data(), sizeof event);
  const char* const name = events.data() + sizeof event;
  events.remove_prefix(sizeof event + event.len);
  return Event{
      event.wd, kindOf(event.mask), (event.mask & IN_ISDIR) != 0, {name, strnlen(name, event.len)}};
}

Inotify::Inotify(Interest interest, bool mayEnter)
    : mask_(maskFor(interest)),
      mayEnter_(mayEnter),
      descriptor_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      workingFolder_(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

int Inotify::Add(const OpenFolder& folder) {
  if (mayEnter_) {
    if (const std::optional<int> watch = AddFromWithin(folder)) return *watch;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(folder.number());
  const int watch = inotify_add_watch(number(), path.c_str(), mask_);
  if (watch >= 0 || errno != ENOENT) return watch;
  return AddFromWithin(folder).value_or(-1);  // there is no /proc
}

// Enters the folder, watches it from there and returns, in less than half of the time that its path
// below /proc takes. The thread must have a working folder of its own. Nothing where the folder
// cannot be entered, or not the working folder, to return to it.
std::optional<int> Inotify::AddFromWithin(const OpenFolder& folder) {
  thread_local const bool hasOwn = unshare(CLONE_FS) == 0;
  if (!hasOwn || !workingFolder_.isOpen() || fchdir(workingFolder_.number()) != 0 ||
      fchdir(folder.number()) != 0) {
    return std::nullopt;
  }
  const int watch = inotify_add_watch(number(), ".", mask_);
  const int error = errno;
  // Whatever becomes of the working folder, the thread must not keep a folder of the tree in use.
  const bool hasLeft = fchdir(workingFolder_.number()) == 0 || chdir("/") == 0;
  errno = error;
  return hasLeft ? watch : -1;
}

void Inotify::Remove(int watch) { inotify_rm_watch(number(), watch); }

// Not what comes meanwhile: events can come as fast as they are read.
bool Inotify::Read(std::string& events) {
  alignas(inotify_event) std::array<char, 65536> buffer;
  static_assert(sizeof buffer > sizeof(inotify_event) + NAME_MAX + 1);
  int left = 0;  // in bytes
  if (ioctl(number(), FIONREAD, &left) != 0) return false;
  const size_t before = events.size();
  while (left > 0) {
    const ssize_t size = read(number(), buffer.data(), buffer.size());
    if (size <= 0) break;
    events.append(buffer.data(), static_cast<size_t>(size));
    left -= static_cast<int>(size);
  }
  return events.size() > before;
}
