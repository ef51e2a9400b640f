// A folder opened for listing. Any thread.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

class FSOpenFolder {
 public:
  // A link that has taken a folder's place must not lead out of the tree, but the watched folder
  // itself may be one.
  FSOpenFolder(const std::string& path, bool followLink)
      : FSOpenFolder(open(path.c_str(), kFlags | (followLink ? 0 : O_NOFOLLOW))) {}

  // By its name in an open folder, which is quicker.
  FSOpenFolder(const FSOpenFolder& parent, const char* name)
      : FSOpenFolder(openat(parent.number_, name, kFlags | O_NOFOLLOW)) {}

  FSOpenFolder(FSOpenFolder&& other) noexcept
      : number_(std::exchange(other.number_, -1)), error_(other.error_) {}
  FSOpenFolder& operator=(FSOpenFolder&&) = delete;
  FSOpenFolder(const FSOpenFolder&) = delete;
  FSOpenFolder& operator=(const FSOpenFolder&) = delete;
  ~FSOpenFolder() { Close(); }

  bool isOpen() const { return number_ >= 0; }
  int number() const { return number_; }
  int error() const { return error_; }  // why it could not be opened; else 0

  void Close() {
    if (isOpen()) close(std::exchange(number_, -1));
  }

 private:
  static constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK;

  explicit FSOpenFolder(int number) : number_(number), error_(number < 0 ? errno : 0) {}

  int number_;
  int error_;
};
