// Paths of folders and entries as text. A key is the path of a folder without a final "/", but for
// "/" itself; paths of entries are formed in the same way. No access to the disk; any thread.
#pragma once

#include <string>
#include <string_view>

namespace FSPaths {

// The key of a folder that is named with or without its final "/", and the name with it.
inline std::string keyOf(const std::string& folder) {
  return folder.size() > 1 && folder.ends_with('/') ? folder.substr(0, folder.size() - 1) : folder;
}
inline std::string folderOf(const std::string& key) { return key == "/" ? key : key + "/"; }

// The path of an entry of the folder.
inline std::string join(const std::string& key, std::string_view name) {
  std::string path;
  path.reserve(key.size() + 1 + name.size());
  path += key;
  if (key != "/") path += '/';
  return path += name;
}

// The key of the folder that has the entry at the path, and the entry's name in it.
inline std::string_view parentOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}
inline std::string_view nameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

// Calls `visit(at)` for the element of the map or set at the path, if any, and for those at paths
// that begin with it and "/". Keys sort by bytes, so those below are together, but not always next
// to the path's own. `visit` may remove its element. The path is not "/".
template <typename Container, typename Visit>
void eachAtAndBelow(Container& container, const std::string& path, Visit visit) {
  if (container.empty()) return;
  const auto keyOfElement = [](const auto& element) -> const std::string& {
    if constexpr (requires { element.first; }) {
      return element.first;
    } else {
      return element;
    }
  };
  if (const auto own = container.find(path); own != container.end()) visit(own);
  const std::string below = path + "/";
  for (auto at = container.lower_bound(below);
       at != container.end() && keyOfElement(*at).starts_with(below);) {
    visit(at++);
  }
}

}  // namespace FSPaths
