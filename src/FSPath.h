// The path of a record, kept as its folder and its name. The entries of one folder share the text
// of the folder, which is most of what a tree's records would take up otherwise, and looking one of
// them up compares names.
//
// A value like a string: it converts to one and compares with one, byte by byte. Any thread.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "FSText.h"

class FSPath {
 public:
  FSPath() = default;
  FSPath(std::string_view path) {  // NOLINT(google-explicit-constructor): a string is a path
    const size_t start = path.rfind('/') + 1;
    folder_ = path.substr(0, start);
    name_ = path.substr(start);
  }
  FSPath(const std::string& path) : FSPath(std::string_view(path)) {}  // NOLINT: likewise
  FSPath(const char* path) : FSPath(std::string_view(path)) {}         // NOLINT: likewise

  // `folder` is empty or has a final "/".
  FSPath(FSText folder, FSText name) : folder_(std::move(folder)), name_(std::move(name)) {}

  std::string str() const { return std::string(parent()).append(name_.view()); }
  operator std::string() const { return str(); }  // NOLINT(google-explicit-constructor)

  // The same in one piece.
  FSText text() const { return {parent(), name()}; }

  // The text before the name: empty, or with a final "/".
  const FSText& folder() const { return folder_; }
  std::string_view parent() const { return folder_; }
  std::string_view name() const { return name_; }
  const FSText& nameText() const { return name_; }
  size_t size() const { return parent().size() + name().size(); }

  struct Hash {
    size_t operator()(const FSPath& path) const {
      const std::hash<std::string_view> hashOf;
      return hashOf(path.parent()) * 31 + hashOf(path.name());
    }
  };

  friend bool operator==(const FSPath& a, const FSPath& b) {
    return a.name_ == b.name_ && a.folder_ == b.folder_;
  }
  friend bool operator==(const FSPath& a, std::string_view b) {
    return a.size() == b.size() && b.ends_with(a.name()) && b.starts_with(a.parent());
  }
  friend bool operator==(const FSPath& a, const std::string& b) { return a == std::string_view(b); }

 private:
  FSText folder_;
  FSText name_;
};
