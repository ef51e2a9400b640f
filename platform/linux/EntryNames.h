// Names of a folder's entries, collected event by event. A plain block of text, since most of them
// are dropped unread.
//
// Filled by the reader thread, then only read.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

class EntryNames {
 public:
  // A name can enter several times.
  void Add(std::string_view name) {
    if (count_ > 0 && std::string_view(text_).substr(last_, text_.size() - last_ - 1) == name)
      return;
    last_ = text_.size();
    text_.append(name).push_back('\0');
    ++count_;
  }

  // How many, repeated ones included.
  size_t count() const { return count_; }

  // Each once, in the order of their bytes.
  std::vector<std::string> Sorted() const {
    std::vector<std::string> names;
    for (size_t at = 0; at < text_.size(); at += names.back().size() + 1) {
      names.emplace_back(text_.data() + at);
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
  }

  // Drops the repeated ones.
  void Compact() {
    const std::vector<std::string> names = Sorted();
    *this = EntryNames();
    for (const std::string& name : names) Add(name);
  }

 private:
  std::string text_;  // each with a NUL behind it
  size_t last_ = 0;   // where the last one begins
  size_t count_ = 0;
};
