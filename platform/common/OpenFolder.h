// The one way to open a folder for listing, for both halves of the program, and what it means when
// a folder or an entry cannot be opened or read.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>

#include "Descriptor.h"

// Why a folder or an entry cannot be opened or read.
enum class Failure : uint8_t {
  none,
  absent,   // nothing of this name is there, or something that is no folder
  denied,   // no permission
  passing,  // no descriptor or memory was left, or by a fault of the device or the network: this
            // says nothing about what is there, and has to be tried again
};

inline Failure failureOf(int error) {
  switch (error) {
    case 0:
      return Failure::none;
    case ENOENT:
    case ENOTDIR:
    case ELOOP:
    case ENAMETOOLONG:
      return Failure::absent;
    case EACCES:
    case EPERM:
      return Failure::denied;
    default:
      return Failure::passing;
  }
}

// One descriptor is held in reserve and given up to the opening that finds none left, so that a
// lack of descriptors slows the program down and does not stop it. Any thread.
class ReserveDescriptor {
 public:
  // Frees the descriptor for one opening; false when it is in use already.
  static bool Free() {
    Descriptor freed(number_.exchange(-1));
    return freed.isOpen();
  }

  // Takes a descriptor into reserve again, if there is none.
  static void Refill() {
    if (number_ >= 0) return;
    Descriptor fresh = Open();
    int none = -1;
    if (fresh.isOpen() && number_.compare_exchange_strong(none, fresh.number())) fresh.Release();
  }

 private:
  // Something that keeps no file system busy. It leaves the numbers of the standard streams alone,
  // which may be closed.
  static Descriptor Open() {
    Descriptor low(socket(AF_UNIX, SOCK_DGRAM, 0));
    if (low.number() > STDERR_FILENO) {
      fcntl(low.number(), F_SETFD, FD_CLOEXEC);
      return low;
    }
    return Descriptor(low.isOpen() ? fcntl(low.number(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : -1);
  }

  static inline std::atomic<int> number_ = [] {
    Descriptor first = Open();
    return first.Release();
  }();
};

class OpenFolder {
 public:
  // None.
  OpenFolder() = default;

  // Opens the folder at the path. A link that has taken a folder's place must not lead out of the
  // tree, but the watched folder itself may be one.
  explicit OpenFolder(const std::string& path, bool followLink = false)
      : OpenFolder(AT_FDCWD, path.c_str(), followLink) {}

  // By its name in an open folder, which is quicker, and certain while folders above it move.
  OpenFolder(const OpenFolder& parent, const std::string& name)
      : OpenFolder(parent.number(), name.c_str(), false) {}

  OpenFolder(const OpenFolder&) = delete;
  OpenFolder& operator=(const OpenFolder&) = delete;
  OpenFolder(OpenFolder&&) = default;
  OpenFolder& operator=(OpenFolder&&) = default;
  ~OpenFolder() { Close(); }

  bool isOpen() const { return folder_.isOpen(); }
  int number() const { return folder_.number(); }
  int error() const { return error_; }  // why it could not be opened, as in errno; else 0
  Failure failure() const { return failureOf(error_); }

  void Close() {
    if (!isOpen()) return;
    folder_.Close();
    ReserveDescriptor::Refill();
  }

 private:
  OpenFolder(int parent, const char* name, bool followLink)
      : folder_(Open(parent, name, followLink)), error_(folder_.isOpen() ? 0 : errno) {}

  static int Open(int parent, const char* name, bool followLink) {
    const int flags =
        O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK | (followLink ? 0 : O_NOFOLLOW);
    for (;;) {
      const int number = openat(parent, name, flags);
      if (number >= 0) return number;
      const bool isWanting = errno == EMFILE || errno == ENFILE;
      const int error = errno;
      if (error != EINTR && !(isWanting && ReserveDescriptor::Free())) {
        errno = error;
        return number;
      }
    }
  }

  Descriptor folder_;
  int error_ = ENOENT;
};
