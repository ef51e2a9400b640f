// What all tests share: a real folder to work in, and waiting for something with a deadline.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

using Texts = std::vector<std::string>;

// The pieces of the text between separators, without empty ones.
inline Texts pieces(const std::string& text, const std::string& separator = " ") {
  Texts found;
  for (size_t at = 0, end = 0; at < text.size(); at = end + separator.size()) {
    end = std::min(text.find(separator, at), text.size());
    if (end > at) found.push_back(text.substr(at, end - at));
  }
  return found;
}

inline std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The lines of the debug log without their time stamps.
inline Texts readLog(const std::string& path) {
  Texts lines = pieces(readFile(path), "\n");
  for (std::string& line : lines) line.erase(0, line[0] == '[' ? 22 : 0);
  return lines;
}

// Whether the condition comes true before the deadline.
template <typename Condition>
bool comesTrue(Condition condition, std::chrono::seconds deadline = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// A folder of the test's own, removed with all below it at the end. Names are relative to it. What
// cannot be done throws, and so fails the test.
class TempFolder {
 public:
  TempFolder() { check(mkdtemp(path_.data()) != nullptr, path_); }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  // Appends to the file, which is made when it is not there.
  void write(const std::string& name, const std::string& content) const {
    check((std::ofstream(*this / name, std::ios::app) << content << std::flush).good(), name);
  }

  // Runs commands with a "; " between them:
  //   mkdir FOLDER            with the folders above it
  //   touch NAME [SECONDS]    makes a file when nothing is there; sets its time of modification,
  //                           a fraction of a second included
  //   write FILE              appends to it
  //   mv OLD NEW              replaces NEW as rename(2) does
  //   swap ONE OTHER          exchanges two names
  //   ln FILE NAME            gives the file another name
  //   link TARGET NAME        makes a symbolic link
  //   rm NAME                 with all below it
  void run(const std::string& commands) const {
    for (const std::string& command : pieces(commands, "; ")) {
      Texts words = pieces(command);
      words.resize(3);
      const std::string one = *this / words[1], two = *this / words[2];
      if (words[0] == "mkdir") {
        std::filesystem::create_directories(one);
      } else if (words[0] == "touch") {
        if (!std::filesystem::exists(one)) write(words[1], "");
        if (words[2].empty()) continue;
        const double seconds = std::stod(words[2]), whole = std::floor(seconds);
        const timespec time = {static_cast<time_t>(whole), std::lround((seconds - whole) * 1e9)};
        const timespec times[] = {time, time};
        check(utimensat(AT_FDCWD, one.c_str(), times, 0) == 0, one);
      } else if (words[0] == "write") {
        write(words[1], "x");
      } else if (words[0] == "swap") {
        check(renameat2(-1, one.c_str(), -1, two.c_str(), RENAME_EXCHANGE) == 0, command);
      } else if (words[0] == "mv") {
        std::filesystem::rename(one, two);
      } else if (words[0] == "ln") {
        std::filesystem::create_hard_link(one, two);
      } else if (words[0] == "link") {
        std::filesystem::create_symlink(words[1], two);
      } else if (words[0] != "rm" || std::filesystem::remove_all(one) == 0) {
        throw std::invalid_argument(command);
      }
    }
  }

  // Runs one command, which may be impossible. Returns whether it was done.
  bool tryToRun(const std::string& command) const try {
    run(command);
    return true;
  } catch (const std::exception&) {
    return false;
  }

 private:
  static void check(bool done, const std::string& name) {
    if (!done) throw std::system_error(errno, std::generic_category(), name);
  }

  std::string path_ = std::filesystem::temp_directory_path() / "dirwarden-XXXXXX";
};
