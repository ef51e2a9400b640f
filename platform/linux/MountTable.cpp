#include "MountTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <sstream>
#include <utility>

namespace {

// In the table, space, tab, newline and backslash are written as a backslash and three octal
// digits.
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

MountTable::Mounts MountTable::ReadChanges() {
  Mounts now = Read();
  Mounts changed;
  std::set_symmetric_difference(mounts_.begin(), mounts_.end(), now.begin(), now.end(),
                                std::inserter(changed, changed.end()));
  mounts_ = std::move(now);
  return changed;
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
      number.append(" ").append(device).append(" ").append(root);
      mounts.insert({unescaped(path), number});
    }
  }
  return mounts;
}
