// Owns a file descriptor and closes it. One thread at a time.
#pragma once

#include <unistd.h>

#include <utility>

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }

  bool isOpen() const { return number_ >= 0; }
  int number() const { return number_; }

  // Gives the descriptor to the caller.
  int Release() { return std::exchange(number_, -1); }

  void Close() {
    if (isOpen()) close(Release());
  }

 private:
  int number_;
};
