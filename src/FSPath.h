// The path of a record, kept as its folder and its name. The entries of one folder share the text
// of the folder, which is most of what a tree's records would take up otherwise, and looking one of
// them up compares names.
//
// A value like a string: it converts to one and compares with one, byte by byte. Any thread.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

class FSPath {
 public:
  // The text of a folder with its final "/".
  using Folder = std::shared_ptr<const std::string>;

  FSPath() = default;
  FSPath(std::string_view path) {  // NOLINT(google-explicit-constructor): a string is a path
    const size_t start = path.rfind('/') + 1;
    if (start > 0) folder_ = std::make_shared<const std::string>(path.substr(0, start));
    name_ = path.substr(start);
  }
  FSPath(const std::string& path) : FSPath(std::string_view(path)) {}  // NOLINT: likewise
  FSPath(const char* path) : FSPath(std::string_view(path)) {}         // NOLINT: likewise
  FSPath(Folder folder, std::string_view name) : folder_(std::move(folder)), name_(name) {}

  std::string str() const { return std::string(parent()).append(name_); }
  operator std::string() const { return str(); }  // NOLINT(google-explicit-constructor)

  // The text before the name: empty, or with a final "/".
  std::string_view parent() const {
    return folder_ == nullptr ? std::string_view() : std::string_view(*folder_);
  }
  const Folder& folder() const { return folder_; }
  const std::string& name() const { return name_; }
  size_t size() const { return parent().size() + name_.size(); }

  friend bool operator==(const FSPath& a, const FSPath& b) {
    return a.name_ == b.name_ && (a.folder_ == b.folder_ || a.parent() == b.parent());
  }
  friend bool operator==(const FSPath& a, std::string_view b) {
    return a.size() == b.size() && b.ends_with(a.name_) && b.starts_with(a.parent());
  }
  friend bool operator==(const FSPath& a, const std::string& b) { return a == std::string_view(b); }
  friend bool operator==(const FSPath& a, const char* b) { return a == std::string_view(b); }

 private:
  Folder folder_;
  std::string name_;
};
