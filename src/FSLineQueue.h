// The lines that wait to be written. Their texts stand one after the other in large blocks of
// memory that go back to the system as soon as they have been written, whatever else the process
// keeps: a listing of a large tree can be queued whole.
//
// Not synchronised; its owner has a lock.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "FreshMemory.h"

class FSLineQueue {
 public:
  bool empty() const { return count_ == 0; }
  size_t size() const { return count_; }

  // Takes the line up to its first NUL. Throws std::bad_alloc.
  void push_back(std::string_view line) {
    line = line.substr(0, line.find('\0'));
    if (blocks_.empty() || blocks_.back().capacity - blocks_.back().end <= line.size()) {
      blocks_.emplace_back(std::max(blocks_.empty() ? kFirstBlock : kBlock, line.size() + 1));
    }
    Block& block = blocks_.back();
    std::memcpy(block.text.get() + block.end, line.data(), line.size());
    block.end += line.size() + 1;  // fresh memory is zero, and is used once
    ++count_;
  }

  // The oldest line. REQUIRES: not empty.
  const char* front() const { return blocks_.front().text.get() + blocks_.front().begin; }

  // REQUIRES: not empty.
  void pop_front() {
    Block& block = blocks_.front();
    block.begin += std::strlen(front()) + 1;
    if (block.begin == block.end) blocks_.pop_front();
    --count_;
  }

  // All lines, oldest first, which leave the queue.
  std::vector<std::string> Take() {
    std::vector<std::string> lines;
    for (lines.reserve(count_); !empty(); pop_front()) lines.emplace_back(front());
    return lines;
  }

 private:
  // In bytes. A few lines take little.
  static constexpr size_t kFirstBlock = 16 << 10;
  static constexpr size_t kBlock = 256 << 10;

  struct Unmap {
    size_t size = 0;
    void operator()(char* memory) const { unmapFresh(memory, size); }
  };
  struct Block {
    explicit Block(size_t size) : text(Map(size), Unmap{size}), capacity(size) {}
    static char* Map(size_t size) {
      void* memory = mapFresh(size);
      if (memory == nullptr) throw std::bad_alloc();
      return static_cast<char*>(memory);
    }
    std::unique_ptr<char, Unmap> text;
    size_t capacity;
    size_t begin = 0;  // of the oldest line
    size_t end = 0;    // behind the NUL of the newest
  };

  std::deque<Block> blocks_;  // none empty
  size_t count_ = 0;
};
