// The record lines as a program reads them.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "support.h"
#include "utility.h"

// A record line, not encoded, in its parts. A line of another tag has an action or a path at most.
struct Record {
  explicit Record(const std::string& line) : tag(line.substr(1, line.find_first_of(" >") - 1)) {
    const Texts parts = Utility::split2(line, '"');
    const size_t start = line.find('>') + 1;
    path = line.substr(start, line.rfind("</") - start);
    if (parts.size() > 1) action = parts[1];
    if (action == "rename") oldPath = parts[5];
    if (parts.size() > 5) modified = parts[action == "rename" ? 7 : 5];
  }

  std::string tag, action, oldPath, path, modified;
};

// Apart from the event stream's class of this name, which is linked to the same tests.
namespace {

// The picture that a reader keeps by the rules in docs/records.md: the entries by path.
class Reader {
 public:
  static constexpr int64_t kFolder = -1;
  using Entries =
      std::map<std::string, int64_t>;  // the second of a file's modification, or kFolder

  void follow(const Record& record) {
    const bool isFolder = record.tag == "folder", isRename = record.action == "rename";
    const std::string &path = record.path, &old = record.oldPath;
    if (!isFolder && record.tag != "file") return;
    if (record.action == "create" && isFolder && has(path, true)) return;
    Entries moved;
    if (isRename && has(old, true)) {
      for (const auto& [below, entry] : entries) {
        if (below.starts_with(old + "/")) moved[path + below.substr(old.size())] = entry;
      }
    }
    if (isRename) drop(old);
    if (record.action != "change") drop(path);
    if (record.action != "delete")
      entries[path] = isFolder ? kFolder : static_cast<int64_t>(std::stoull(record.modified));
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
};

}  // namespace
