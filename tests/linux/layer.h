// What the tests of the event stream's parts share: the faults of the kernel, which the linker puts
// between the project's code and the C library (layer.cpp), and a fixture that is told in commands
// what happens on the disk.
#pragma once

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <climits>
#include <functional>

#include "WatchTable.h"
#include "support.h"

// Before "open PATH", "list PATH", "status PATH" or "watch PATH": the error number to fail with, or
// 0. A "list" goes back to the start of the folder for kListAgain.
extern std::function<int(const std::string& call)> beforeCall;
constexpr int kListAgain = -1;
extern std::function<void()> beforeOpening;  // a folder

// What a read of events gets.
struct Queue {
  size_t size = SIZE_MAX;  // bytes at most
  int reads = INT_MAX;     // that get something
  bool isFull = false;     // and has lost what the next read does not get
};
extern Queue queue;

extern bool ignoresCase;  // an entry is found by its name in the other case

constexpr size_t kOneEvent = sizeof(inotify_event) + 16;  // with a short name

// The folders at and below the path are as many as the kernel has watches on the instance.
inline size_t expectEveryFolderWatched(int inotify, const std::string& path) {
  size_t folders = 1;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
    folders += entry.symlink_status().type() == std::filesystem::file_type::directory;
  }
  const std::string info = "/proc/self/fdinfo/" + std::to_string(inotify);
  EXPECT_EQ(pieces(readFile(info), "inotify wd:").size() - 1, folders);
  return folders;
}

class ScriptTest : public testing::Test {
 protected:
  ~ScriptTest() override {
    beforeCall = nullptr;
    queue = {};
  }

  // TempFolder's commands, "hold NAME", which keeps the folder open until another is held, and
  // those of one word that the test has of its own.
  void run(const std::string& commands) {
    for (const std::string& command : pieces(commands, "; ")) {
      if (command.find(' ') == std::string::npos) {
        act(command);
      } else if (command.starts_with("hold ")) {
        held = OpenFolder(folder / command.substr(5));
      } else {
        folder.run(command);
      }
    }
  }

  virtual void act(const std::string& command) = 0;

  // The batch as its reader meets it, from the last to the first; with "!" where events were lost,
  // and "?" where the root has changed.
  void note(const std::vector<NamedFolder>& batch) {
    constexpr auto kLost =
        kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagKernelDropped;
    std::string names;
    for (const auto& [path, flags, ignored] : batch) {
      const bool isLost = flags == kLost, isRoot = flags == kFSEventStreamEventFlagRootChanged;
      EXPECT_TRUE(isLost || isRoot || flags == kFSEventStreamEventFlagNone);
      const size_t start = path.starts_with(folder / "") ? folder.path().size() + 1 : 0;
      const std::string rest = names.empty() ? "" : " " + names;
      names = path.substr(start) + (isLost ? "!" : isRoot ? "?" : "") + rest;
    }
    named += (named.empty() ? "" : " | ") + names;
  }

  TempFolder folder;
  OpenFolder held;
  std::string named;  // by all batches
};
