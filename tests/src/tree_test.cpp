#include <cstring>

#include "watcher_test.h"

namespace {

FSResourcePtr entry(uint64_t inode, const std::string& path, bool isFolder = false) {
  return std::make_shared<FSResource>(inode, path, isFolder, timespec{1, 0}, timespec{2, 0}, 3, "");
}

TEST(ResourceArray, LooksUpByTheNamedFieldOnly) {
  const FSResourceList list = {entry(1, "/a/b"), entry(1, "/a/b/c"), entry(3, "/a/b"),
                               entry(4, "/a/A")};
  const FSResource b = *list[2];
  FSResourceArray array(list);
  EXPECT_EQ(array.IndexOfByPath(b), 0);
  EXPECT_EQ(array.IndexOfByINode(b), 2);
  EXPECT_EQ(array.IndexOfByPath(*entry(1, "/a/B")), -1);
  EXPECT_EQ(array.IndexOfByINode(*entry(9, "/a/b")), -1);
  EXPECT_EQ(array.Get(4), nullptr);
  EXPECT_EQ(array.CompareByPath(b, true, false, true), (FSResourceList{list[0], list[2], list[3]}));
  EXPECT_EQ(array.CompareByPath(b, false, true, false), FSResourceList{list[1]});
  array.AppendList(array.items);
  array.Remove(array.items[0]);
  array.Remove(entry(4, "/a/A"));  // an equal record, but not this very one
  EXPECT_EQ(array.Count(), 6U);
  EXPECT_EQ(array.items, (FSResourceList{list[1], list[2], list[3], list[1], list[2], list[3]}));
}

class TreeTest : public WatcherTest {
 protected:
  Texts scan(const std::string& path, bool listSync, bool reportNew) {
    tree().DirSearch(path, listSync, reportNew);
    return records();
  }
};

TEST_F(TreeTest, ListsEntriesButIgnoredNamesAndFollowsALinkAtTheRootOnly) {
  folder.run("mkdir r; touch r/a.tmp; touch r/.db; mkdir r/.DS_Store; touch r/a.b.TemporaryItems");
  folder.run("touch r/a.TMP; touch r/a.tmp.txt; touch r/._f; mkdir r/x.db; touch r/x.db/db");
  folder.run("link r R; link x.db r/link");
  for (int times = 0; times < 2; ++times) tree().InitWithPath(folder / "R//", changes(), false);
  EXPECT_EQ(saved(true), "R: R/._f R/a.TMP R/a.tmp.txt R/link R/x.db | R/x.db: R/x.db/db");
  EXPECT_EQ(tree().prohibitedSuffixes.size(), 28U);
  EXPECT_FALSE(tree().isProhibited("/x.db/db"));
  EXPECT_EQ(tree().GetCurrentResourceList(folder / "r/link/").Count(), 0U);
  EXPECT_EQ(tree().GetCurrentResourceList(folder / "r/x.db").Get(0)->path, folder / "r/x.db/db");
  EXPECT_FALSE(tree().GetCurrentResourceList("/").Get(0)->path.starts_with("//"));
}

TEST_F(TreeTest, KeepsListsByFolder) {
  FSTree& tree = TreeTest::tree();
  for (const char* key : {"/", "/d", "/d/e", "/d-x", "/dd"}) tree.SetListing(key, emptyListing());
  tree.UpdateDir(
      "/", FSResourceArray({entry(1, "/d", true), entry(2, "/dd", true), entry(3, "/d", true)}));
  EXPECT_EQ(tree.GetSavedResourceList("/").Count(), 3U);
  tree.AddDirResource("/d", entry(4, "/d/f"));
  tree.AddDirResource("/none", entry(5, "/none/g", true));
  tree.AddDirResource("/", entry(1, "/d", true));
  EXPECT_EQ(saved(), "/: /d /dd /d /d | /d: /d/f | /d-x: | /d/e: | /dd: | /none/g:");
  EXPECT_EQ(tree.GetSavedResourceList("/d/").Count(), 1U);
  EXPECT_EQ(tree.GetSavedResourceList("/d").Count(), 0U);
  EXPECT_EQ(tree.GetSavedResourceList2("/d/").Count(), 0U);
  tree.DeleteSavedResourceList("/d", false);
  EXPECT_EQ(saved(), "/: /dd | /d: /d/f | /d-x: | /d/e: | /dd: | /none/g:");
  tree.DeleteSavedResourceList("/d", true);
  for (const char* key : {"/dd", "/d"}) {
    tree.UpdateDir(key, FSResourceArray({entry(6, "/dd/a"), entry(7, "/dd/b"), entry(8, "/dd/a")}));
  }
  EXPECT_EQ(saved(), "/: /dd | /d-x: | /dd: /dd/a /dd/b /dd/a | /none/g:");
  tree.DeleteDirResource("/dd", *entry(9, "/dd/a"));
  for (const char* key : {"/dd", "/d-x"}) tree.Forget(key);
  EXPECT_EQ(saved(), "/: /dd | /dd: /dd/b | /none/g:");
}

TEST_F(TreeTest, ListsAndReportsWhatItFinds) {
  folder.run("mkdir d; touch d/c.txt; touch x.tmp");
  tree().InitWithPath(folder.path(), changes(), true);
  EXPECT_EQ(records(), (Texts{"sync folder d", "sync file d/c.txt"}));
  tree().ClearSnapshot();
  EXPECT_EQ(scan(folder.path(), true, true),
            pieces("sync folder d; create folder d; sync file d/c.txt; create file d/c.txt", "; "));
  EXPECT_EQ(saved(), "/: d | d: d/c.txt");
}

TEST_F(TreeTest, ReportsFoldersThatCannotBeRead) {
  const auto errors = [](const std::string& name, int error) {
    return Texts{"error " + name, std::string("error ") + strerror(error)};
  };
  folder.run("mkdir A; touch A/f");
  tree().InitWithPath(folder / "none", changes(), false);
  EXPECT_EQ(records(), errors("none", ENOENT));
  EXPECT_EQ(scan(folder / "A/f", true, true), errors("A/f", ENOTDIR));
  EXPECT_EQ(scan("/var/none", true, true), Texts{});
  EXPECT_EQ(saved(), "");
}

TEST_F(TreeTest, KeepsWhatTheReaderHasWhenItReportsWhatIsNew) {
  folder.run("mkdir A/kind; touch A/gone; touch A/old; touch A/replaced 1; touch A/stays");
  folder.run("mkdir B; touch B/f 1");
  watch();
  folder.run("rm A/gone; mv A/old A/name; rm A/kind; touch A/kind; mkdir A/new; touch A/new/x");
  folder.run("touch other 2; mv other A/replaced; touch B/f 2");
  EXPECT_EQ(scan(folder.path(), false, true),
            (Texts{"create folder A/new", "create file A/new/x"}));
  EXPECT_EQ(sorted(batch({"A/new/", "A/", "A/"})),
            (Texts{"change file A/replaced", "change file B/f", "create file A/kind",
                   "delete file A/gone", "delete folder A/kind", "rename file A/old -> A/name"}));
}

TEST_F(TreeTest, ExaminesNamesOfALargeFolderAndReadsTheRestLater) {
  for (int i = 0; i < 300; ++i) folder.write("A" + std::to_string(i), "");
  folder.run("mkdir B; touch B/A7 1");
  watch();
  names = {"A7", "A8", "n"};
  folder.run("touch A7 7; touch A9 9; mv A8 n; mv B/A7 B/n");
  EXPECT_EQ(batch({"B/"}), Texts{"rename file B/A7 -> B/n"}) << "a small folder";
  EXPECT_EQ(batch({"/", "/"}), (Texts{"change file A7", "rename file A8 -> n"}));
  const FSByNames::Time due = *tree().byNames.Next();
  FSEventWatcher::RetryUnread(due - std::chrono::seconds(1));
  EXPECT_EQ(records(), Texts{});
  FSEventWatcher::RetryUnread(due);
  EXPECT_EQ(records(), Texts{"change file A9"});
  EXPECT_FALSE(tree().byNames.Next());

  // What came remains to be reported when what went was, and is not among the next names.
  names = {};
  folder.run("rm A10; rm A11; touch new");
  EXPECT_EQ(batch({"/"}).size(), 2U) << "what went";
  names = {"A12"};
  folder.run("rm A12");
  EXPECT_EQ(sorted(batch({"/", "/"})), (Texts{"create file new", "delete file A12"}));

  // Another folder is at the path. What it holds is not examined by the names.
  names = {"A7"};
  const TempFolder other;
  std::filesystem::rename(folder.path(), other / "away");
  std::filesystem::create_directory(folder.path());
  EXPECT_EQ(batch({"/"}).size(), 299U);
}

}  // namespace
