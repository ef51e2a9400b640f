// The fixture of the tests that feed a watcher with hand-made batches of events on a real folder.
// No event stream and no emitter run.
#pragma once

#include <gtest/gtest.h>

#include "FSEventWatcher.h"
#include "reader.h"
#include "support.h"

class WatcherTest : public testing::Test {
 protected:
  WatcherTest() {
    names = {};
    FSEventWatcher::sNamesBehind = [](ConstFSEventStreamRef, size_t, FSNames& behind) {
      behind = names;
      return !names.empty();
    };
  }

  // Takes the snapshot of the folder as it is now.
  void watch() {
    _path = folder.path();
    _pathResource = FSTree::GetResource(_path);
    tree().InitWithPath(_path, changes(), _showAll);
  }

  // Delivers one batch that names the folders in this order, each with its final "/": "/" is the
  // watched folder, "A/" is below it, any other name with a leading "/" is a whole path. Returns
  // the record lines in short: "create file A/x", "rename file A/f -> B/f", "scan begin", "error
  // A".
  Texts batch(Texts folders, FSEventStreamEventFlags flag = 0, FSEventStreamEventId id = 7) {
    std::vector<const char*> paths;
    for (std::string& name : folders) {
      if (name == "/") name = folder / "";
      if (name[0] != '/') name = folder / name;
      paths.push_back(name.c_str());
    }
    const std::vector<FSEventStreamEventFlags> flags(folders.size(), flag);
    const std::vector<FSEventStreamEventId> ids(folders.size(), id);
    FSEventWatcher::FSEvents_Callback(nullptr, nullptr, folders.size(), paths.data(), flags.data(),
                                      ids.data());
    return records();
  }

  // The record lines in short that have been queued since the last call; `lines` has them whole.
  Texts records() {
    const MutexLock lock(changes().outputLock);
    lines = changes().outputLines.Take();
    Texts found;
    for (const std::string& line : lines) found.push_back(shortened(line));
    return found;
  }

  // The snapshot as "/: A f | A: A/g A/h".
  std::string saved(bool sort = false) const {
    std::string text;
    for (const auto& [key, ignored] : tree().snapshot) {
      text += (text.empty() ? "" : " | ") + key + ":";
      Texts paths;
      for (const auto& entry : tree().GetSavedResourceList2(key).items)
        paths.push_back(entry->path);
      for (const std::string& path : sort ? sorted(paths) : paths) text += " " + path;
    }
    return shortened(text);
  }

  using Listing = std::map<std::string, FSResourcePtr>;  // by path

  // What is below the watched folder, and what the snapshot says that the reader has.
  Listing disk() const {
    Listing found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path())) {
      found[entry.path()] = FSTree::GetResource(entry.path());
    }
    return found;
  }
  static Listing snapshot() {
    Listing found;
    for (const auto& [key, ignored] : tree().snapshot) {
      for (const FSResourcePtr& entry : tree().GetSavedResourceList2(key).items) {
        EXPECT_TRUE(found.emplace(entry->path, entry).second) << "twice: " << entry->path;
      }
    }
    return found;
  }

  // The same as a reader keeps it, and which file each name is.
  static Reader::Entries kept(const Listing& listing) {
    Reader::Entries found;
    for (const auto& [path, entry] : listing) {
      found[path] = entry->isFolder ? Reader::kFolder : entry->modified.tv_sec;
    }
    return found;
  }
  using File = std::pair<uint64_t, uint64_t>;
  static File file(const FSResourcePtr& entry) { return {entry->inode, entry->generation}; }
  static std::map<std::string, File> files(const Listing& listing) {
    std::map<std::string, File> found;
    for (const auto& [path, entry] : listing) found[path] = file(entry);
    return found;
  }

  // A record line in short; in any other text only the paths, relative to the watched folder, which
  // is "/" itself.
  std::string shortened(std::string text) const {
    for (size_t at; (at = text.find(folder.path())) != std::string::npos;) {
      const bool isBelow = text.substr(at).starts_with(folder / "");
      text.replace(at, folder.path().size() + isBelow, isBelow ? "" : "/");
    }
    if (text[0] != '<') return text;
    const Record record(text);
    const std::string old = record.oldPath.empty() ? "" : record.oldPath + " -> ";
    const bool isEntry = record.tag == "file" || record.tag == "folder";
    return isEntry ? record.action + " " + record.tag + " " + old + record.path
                   : record.tag + " " + record.action + record.path;
  }

  // Once all is at rest: what is in doubt would be compared again with every batch, and what is not
  // there would stay in memory.
  void expectNothingLeft() {
    EXPECT_TRUE(tree().doubt.empty()) << *tree().doubt.begin();
    for (const auto& [key, ignored] : tree().snapshot) {
      EXPECT_TRUE(std::filesystem::is_directory(key) && !tree().IsUnknown(key)) << key;
    }
  }

  static FSTree& tree() { return *FSEventWatcher::sTree; }
  static FSChangeEvents& changes() { return *FSEventWatcher::sChanges; }

  static Texts sorted(Texts texts) {
    std::ranges::sort(texts);
    return texts;
  }

  static inline FSNames names;  // behind every event; not known while there are none
  TempFolder folder;
  FSEventWatcher watcher;
  Texts lines;
};
