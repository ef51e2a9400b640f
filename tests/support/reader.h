// What a reader of the records keeps: the entries of the tree by path below the watched folder, by
// the rules in docs/records.md.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "support.h"
#include "utility.h"

// Apart from the event stream's class of this name, which is linked to the same tests.
namespace {

class Reader {
 public:
  static constexpr int64_t kFolder = -1;
  using Entries =
      std::map<std::string, int64_t>;  // the second of a file's modification, or kFolder

  explicit Reader(std::string root = "") : root_(std::move(root)) {}

  // Applies a whole record line, not encoded.
  void follow(const std::string& line) {
    const Texts parts = Utility::split2(line, '"');
    if (parts.size() < 6) return;  // no record of an entry
    const bool isFolder = line.starts_with("<folder"), isRename = parts[1] == "rename";
    const std::string name = below(line.substr(line.find('>') + 1)), old = below(parts[5]);
    const int64_t entry = isFolder ? kFolder : std::stoll(parts[isRename ? 7 : 5]);
    if (parts[1] == "create" && isFolder && has(name, true)) return;
    Entries moved;
    if (isRename && has(old, true)) {
      for (const auto& [path, kept] : entries) {
        if (path.starts_with(old + "/")) moved[name + path.substr(old.size())] = kept;
      }
    }
    if (isRename) drop(old);
    if (parts[1] != "change") drop(name);
    if (parts[1] != "delete") entries[name] = entry;
    entries.merge(moved);
  }

  Entries entries;

 private:
  bool has(const std::string& path, bool isFolder) const {
    const auto found = entries.find(path);
    return found != entries.end() && (found->second == kFolder) == isFolder;
  }

  // Takes the path out, and all below it.
  void drop(const std::string& path) {
    const bool isFolder = has(path, true);
    std::erase_if(entries, [&](const auto& entry) {
      return entry.first == path || (isFolder && entry.first.starts_with(path + "/"));
    });
  }

  std::string below(const std::string& text) const {
    const std::string path = text.substr(0, text.rfind("</"));
    return path.starts_with(root_ + "/") ? path.substr(root_.size() + 1) : path;
  }

  std::string root_;
};

}  // namespace
