// The lines that wait to be written. Their texts, each with its line feed, follow each
// other in large blocks of memory that go back to the system as soon as they have been written,
// whatever else the process keeps: a listing of a large tree can be queued whole.
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
    block.ends.push_back(block.end + line.size() + 1);
    std::memcpy(block.text.get() + block.end, line.data(), line.size());
    block.text.get()[block.ends.back() - 1] = '\n';
    block.end = block.ends.back();
    ++count_;
  }

  // The text of the oldest lines, at least of one and at most of so many. What has been consumed of
  // the first is left out. REQUIRES: not empty; `most` is not 0.
  std::string_view Front(size_t most) const {
    const Block& block = blocks_.front();
    const size_t last = std::min(block.ends.size(), block.first + most) - 1;
    return {block.text.get() + block.begin, block.ends[last] - block.begin};
  }

  // So many bytes of Front have been written. The lines that are complete then leave the queue.
  // Returns how many.
  size_t Consume(size_t bytes) {
    if (bytes == 0) return 0;
    Block& block = blocks_.front();
    const size_t before = block.first;
    block.begin += bytes;
    while (block.first < block.ends.size() && block.ends[block.first] <= block.begin) ++block.first;
    const size_t complete = block.first - before;
    count_ -= complete;
    if (block.first == block.ends.size()) blocks_.pop_front();
    return complete;
  }

  // All lines without their line feeds, oldest first, which leave the queue.
  std::vector<std::string> Take() {
    std::vector<std::string> lines;
    lines.reserve(count_);
    while (!empty()) {
      const std::string_view line = Front(1);
      lines.emplace_back(line.substr(0, line.size() - 1));
      Consume(line.size());
    }
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
    std::vector<size_t> ends;  // by line: behind its line feed
    size_t first = 0;          // the oldest line that is not complete
    size_t begin = 0;          // of what has not been consumed
    size_t end = 0;            // of the newest line
  };

  std::deque<Block> blocks_;  // none empty
  size_t count_ = 0;
};
