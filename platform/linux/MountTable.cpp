#include "MountTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <sstream>
#include <vector>

namespace {

// In the table, space, tab, newline and backslash stand as a backslash and three octal digits.
std::string unescaped(const std::string& text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      plain += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

}  // namespace

MountTable::MountTable()
    : file_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)), mounts_(Read()) {}

std::set<std::string> MountTable::ReadChanges() {
  Mounts now = Read();
  std::vector<Mounts::value_type> changed;
  std::set_symmetric_difference(mounts_.begin(), mounts_.end(), now.begin(), now.end(),
                                std::back_inserter(changed));
  mounts_ = std::move(now);
  std::set<std::string> paths;
  for (const auto& [path, mounted] : changed) paths.insert(path);
  return paths;
}

MountTable::Mounts MountTable::Read() {
  std::string table;
  std::array<char, 4096> buffer;
  lseek(file_.number(), 0, SEEK_SET);
  for (ssize_t got = 0; (got = read(file_.number(), buffer.data(), buffer.size())) > 0;) {
    table.append(buffer.data(), static_cast<size_t>(got));
  }
  Mounts mounts;
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string number, parent, device, root, path;
    if (words >> number >> parent >> device >> root >> path) {
      mounts.emplace(unescaped(path), number + " " + device + " " + root);
    }
  }
  return mounts;
}
