#include <random>
#include <set>

#include "FSReconciliation.h"
#include "watcher_test.h"

namespace {

FSResourcePtr named(const FSResourceList& list, const std::string& path) {
  for (const FSResourcePtr& entry : list) {
    if (entry->path == path) return entry;
  }
  return nullptr;
}

// The comparison in plain steps: each list is searched from its front, and the snapshot is brought
// up to date by the tree's own operations after every step.
struct PlainComparison {
  const std::string key;
  FSTree& tree;
  FSChangeList batch;
  FSResourceList current, saved;
  std::set<FSResourcePtr> passed;

  void run() {
    if (tree.SavedList(key) == nullptr && tree.IsSavedFolder(key)) tree.SetSavedList(key, {});
    current = tree.GetCurrentResourceList(key).items;
    saved = tree.GetSavedResourceList2(key).items;
    const bool isCreating = current.size() > saved.size();
    const FSResourceList& walked = isCreating ? current : saved;
    const FSResourceList& others = isCreating ? saved : current;
    for (const FSResourcePtr& entry : walked) {
      if (passed.contains(entry)) continue;
      FSResourcePtr other = named(others, entry->path);
      const bool isSameName = other != nullptr;
      for (auto at = others.begin(); other == nullptr && at != others.end(); ++at) {
        const FSResourcePtr own = named(walked, (*at)->path);  // a name that the file still has
        const bool isOnBoth = own != nullptr && isSameFile(*own, **at);
        if (isSameFile(**at, *entry) && !isOnBoth && !passed.contains(*at)) other = *at;
      }
      const FSResourcePtr now = isCreating ? entry : other, before = isCreating ? other : entry;
      if (isSameName) {
        keptName(now, before);
      } else if (other != nullptr) {
        renamed(now, before);
      } else if (isCreating) {
        created(now);
      } else {
        deleted(before);
      }
    }
  }

  void keptName(const FSResourcePtr& now, const FSResourcePtr& before) {
    if (passed.contains(now)) return;
    if (now->isFolder != before->isFolder) {
      deleted(before);
      passed.insert(before);
      created(now);
    } else if (!now->isFolder && now->modified.tv_sec != before->modified.tv_sec) {
      batch.emplace_back("change", *now);
      tree.DeleteSavedResourceList(now->path, false);
      tree.AddDirResource(key, now);
    } else if (now->isFolder && !isSameFile(*now, *before)) {
      for (const FSResourcePtr& other : current) {
        if (isSameFile(*other, *before) && named(saved, other->path) == nullptr) return;
      }
      FSResourceList list = *tree.SavedList(key);
      std::replace(list.begin(), list.end(), before, now);
      tree.SetSavedList(key, list);
    }
  }

  void created(const FSResourcePtr& now) {
    batch.emplace_back("create", *now);
    tree.AddDirResource(key, now);
    passed.insert(now);
  }

  void deleted(const FSResourcePtr& before) {
    batch.emplace_back("delete", *before);
    tree.DeleteSavedResourceList(before->path, before->isFolder);
  }

  void renamed(const FSResourcePtr& now, const FSResourcePtr& before) {
    const FSResourcePtr replaced = named(saved, now->path);
    if (replaced != nullptr && replaced->isFolder && !passed.contains(replaced)) deleted(replaced);
    batch.emplace_back("rename", *now).oldPath = before->path.text();
    std::shared_ptr<FSSavedLists> below;
    if (before->isFolder) below = tree.TakeSavedLists(before->path);
    for (const std::string& path : {now->path.str(), before->path.str()}) {
      tree.DeleteSavedResourceList(path, false);
      for (const FSResourcePtr& entry : saved) {
        if (entry->path == path) passed.insert(entry);
      }
    }
    tree.AddDirResource(key, now);
    passed.insert(now);
    if (now->isFolder && below != nullptr) tree.PutSavedLists(*below, now->path, now->path);
    const FSResourcePtr successor = named(current, before->path);
    if (successor != nullptr && !passed.contains(successor)) created(successor);
  }
};

TEST_F(WatcherTest, AComparisonAgreesWithPlainStepsOnAnyListings) {
  // The records as lines, then the snapshot, each entry as a line.
  const auto textOf = [](const FSChangeList& records, const FSTree& tree) {
    Texts found;
    for (const auto& record : records) {
      found.push_back(std::string(record.action) + changes().buildMessage(record, false));
    }
    for (const auto& [key, list] : tree.snapshot) {
      found.push_back(key);
      for (const auto& e : list) found.push_back(changes().buildMessage({"sync", *e}, false));
    }
    return found;
  };
  std::mt19937 random(1);
  const auto below = [&](size_t count) { return random() % count; };
  const auto name = [&] { return std::string("D/") + "abcdef"[below(6)]; };
  const std::string key = folder / "D";
  for (int round = 0; round < 300; ++round) {
    folder.run("mkdir D");
    for (auto count = below(10); count > 0; --count) {
      const Texts commands = {"touch " + name(), "mkdir " + name(), "ln " + name() + " " + name()};
      folder.tryToRun(commands[below(3)]);
    }
    FSTree trees[2];
    const auto save = [&](const std::string& path, const FSResourceList& list) {
      for (FSTree& tree : trees) tree.SetSavedList(path, list);
    };
    const FSResourceList current = trees[0].GetCurrentResourceList(key).items;
    FSResourceList list;
    for (auto count = below(8); count > 0; --count) {
      FSResource saved(1 + below(3), "", below(3) == 0, {1, 0}, {2, 0}, 3, "");
      if (!current.empty() && below(4) != 0) saved = *current[below(current.size())];
      if (saved.path.size() == 0 || below(4) != 0) saved.path = folder / name();
      if (below(4) == 0) saved.birth = static_cast<int64_t>(below(2));
      if (below(4) == 0) saved.modified.tv_sec = 1;
      list.push_back(std::make_shared<FSResource>(saved));
      saved.path = saved.path.str() + "/x";
      if (list.back()->isFolder) save(list.back()->path, {std::make_shared<FSResource>(saved)});
    }
    if (below(8) != 0) save(key, list);
    if (below(2) != 0) save(folder.path(), {FSTree::GetResource(key)});

    PlainComparison plain{key, trees[0], {}, {}, {}, {}};
    plain.run();
    FSChangeList found;
    FSReconciliation(key + "/", trees[1], changes(), found).Run();
    ASSERT_EQ(textOf(found, trees[1]), textOf(plain.batch, trees[0])) << round;
    folder.run("rm D");
  }
}

TEST_F(WatcherTest, AComparisonTellsFilesOfOneInodeApartByTheirBirth) {
  folder.run("touch new");
  watch();
  FSResource old = *FSTree::GetResource(folder / "new");
  const int64_t birth = old.birth;
  if (birth == 0) GTEST_SKIP() << "the file system keeps no birth time";
  old.path = folder / "old";
  for (const int64_t oldBirth : {birth, int64_t{0}, birth + 1}) {
    old.birth = oldBirth;
    tree().SetSavedList(folder.path(), {std::make_shared<FSResource>(old)});
    EXPECT_EQ(batch({"/", "/"}), oldBirth == birth + 1
                                     ? Texts({"delete file old", "create file new"})
                                     : Texts{"rename file old -> new"});
  }
}

}  // namespace
