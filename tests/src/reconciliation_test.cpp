// The comparison of one folder, by what it promises for anything that may happen in the folder.
#include <random>
#include <set>

#include "FSReconciliation.h"
#include "reader.h"
#include "watcher_test.h"

namespace {

class ReconciliationTest : public WatcherTest {
 protected:
  struct Entry {
    FileIdentity identity;
    int64_t second;  // of its modification, or Reader::kFolder
  };
  using Listing = std::map<std::string, Entry>;  // by path below the root

  Listing list(const FSResourceArray& entries) const {
    Listing found;
    for (const FSResourcePtr& entry : entries.items) {
      found[shortened(entry->path)] = {entry->status().identity,
                                       entry->isFolder ? Reader::kFolder : entry->modified.tv_sec};
    }
    return found;
  }

  Listing disk() const { return list(tree().GetCurrentResourceList(folder / "D")); }
  Listing snapshot() const { return list(tree().GetSavedResourceList2(folder / "D")); }

  // What a reader knows of the listing.
  static Reader::Entries asEntries(const Listing& listing) {
    Reader::Entries entries;
    for (const auto& [path, entry] : listing) entries[path] = entry.second;
    return entries;
  }

  // The names of each file that has just one.
  static std::map<std::pair<uint64_t, uint64_t>, std::string> onlyNames(const Listing& listing) {
    std::map<std::pair<uint64_t, uint64_t>, std::string> names;
    for (const auto& [path, entry] : listing) {
      const auto [at, isFirst] =
          names.try_emplace({entry.identity.inode, entry.identity.generation}, path);
      if (!isFirst) at->second = "";
    }
    std::erase_if(names, [](const auto& name) { return name.second.empty(); });
    return names;
  }

  // The renames that have to come: what has another name now, but for rings of files or of folders,
  // which no sequence of renames can tell. A file with several names may close one.
  static std::map<std::string, std::string> moves(const Listing& before, const Listing& after) {
    const auto olds = onlyNames(before), news = onlyNames(after);
    std::map<std::string, std::string> all;  // old name to new
    for (const auto& [file, name] : olds) {
      if (news.contains(file) && news.at(file) != name) all[name] = news.at(file);
    }
    std::map<std::string, std::string> told = all;
    for (const auto& move : all) {
      std::string at = move.second;
      for (size_t i = 0; i < all.size() && at != move.first && all.contains(at); ++i) {
        at = all.at(at);
      }
      const bool isOpen = !before.contains(at) || single(before, after, at);
      if (at == move.first || !isOpen) told.erase(move.first);
    }
    return told;
  }

  // Whether what had the name has no more than one name, before and after.
  static bool single(const Listing& before, const Listing& after, const std::string& name) {
    const FileIdentity file = before.at(name).identity;
    const auto isIt = [&](const auto& entry) { return entry.second.identity == file; };
    return std::ranges::count_if(before, isIt) == 1 && std::ranges::count_if(after, isIt) < 2;
  }

  void change() {
    const auto name = [&] { return std::string("D/") + "abcdefgh"[random() % 8]; };
    const std::string one = name(), other = name();
    switch (random() % 10) {
      case 0:
        folder.tryToRun("mkdir " + one);
        break;
      case 1:
        folder.tryToRun("ln " + one + " " + other);
        break;
      case 2:
        folder.tryToRun("rm " + one);
        break;
      case 3:
        folder.tryToRun("rm " + one + "; touch " + one + " " + std::to_string(random() % 5));
        break;
      case 4:
        folder.swap(one, other);
        break;
      case 5:
      case 6:
        folder.tryToRun("touch " + one + " " + std::to_string(random() % 5));
        break;
      default:
        folder.tryToRun("mv " + one + " " + other);
    }
  }

  std::mt19937 random{1};
};

TEST_F(ReconciliationTest, TellsEveryMoveAndReachesTheDiskInTwoPasses) {
  folder.run("mkdir D");
  for (int i = 0; i < 8; ++i) change();
  watch();
  size_t told = 0;
  for (int round = 0; round < 2000; ++round) {
    const Listing before = snapshot();
    for (auto count = random() % 8; count > 0; --count) change();
    const Listing after = disk();
    Reader reader(folder.path());
    reader.entries = asEntries(before);
    std::string records;
    std::map<std::string, std::string> renames;
    for (int pass = 1; pass <= 2; ++pass) {
      for (const std::string& record : batch({"D/"})) {
        records += record + "; ";
        const Texts words = pieces(record);
        if (words[0] == "rename") renames[words[2]] = words[4];
        if (pass == 1 && words[0] == "create" && after.size() <= before.size()) {
          EXPECT_TRUE(before.contains(words[2])) << records;  // another file's name
        }
      }
      for (const std::string& line : lines) reader.follow(line);
      if (pass == 1) told += renames.size();
    }
    SCOPED_TRACE("round " + std::to_string(round) + ": " + records);
    ASSERT_EQ(reader.entries, asEntries(after));
    ASSERT_EQ(asEntries(snapshot()), asEntries(after));
    for (const auto& [path, entry] : snapshot()) ASSERT_EQ(entry.identity, after.at(path).identity);
    for (const auto& [old, name] : renames) {
      ASSERT_EQ(before.at(old).identity, after.at(name).identity) << old;
    }
    for (const auto& [old, name] : moves(before, after)) ASSERT_EQ(renames[old], name) << old;
    ASSERT_EQ(batch({"D/"}), Texts{});
  }
  EXPECT_GT(told, 500U);
}

}  // namespace
