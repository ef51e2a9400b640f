// The comparison of one folder, by what it promises for anything that may happen in the folder.
#include <random>

#include "FSReconciliation.h"
#include "watcher_test.h"

namespace {

class ReconciliationTest : public WatcherTest {
 protected:
  // The renames that have to be reported, new name by old: of what has one name, before and after,
  // to a name that was free. (To a name that was taken, see the stories of callbacks.)
  static std::map<std::string, std::string> moves(const Listing& before, const Listing& after) {
    std::map<File, std::pair<Texts, Texts>> names;
    for (const auto& [path, entry] : before) names[file(entry)].first.push_back(path);
    for (const auto& [path, entry] : after) names[file(entry)].second.push_back(path);
    std::map<std::string, std::string> moves;
    for (const auto& [file, both] : names) {
      const auto& [olds, news] = both;
      const bool isOne = olds.size() == 1 && news.size() == 1;
      if (isOne && !before.contains(news[0])) moves[olds[0]] = news[0];
    }
    return moves;
  }

  void change() {
    static const Texts verbs = pieces("mkdir ln rm rm touch touch swap mv mv mv mv");
    const std::string verb = verbs[random() % verbs.size()];
    const auto name = [&] { return std::string(" D/") + "abcdefgh"[random() % 8]; };
    // Listings keep the last of these times in another form.
    static const Texts times = pieces("-9 0 1 2 9000000000");
    const std::string first = verb + name();
    folder.tryToRun(first + (verb == "touch" ? " " + times[random() % 5] : name()));
  }

  std::mt19937 random{1};
};

TEST_F(ReconciliationTest, ReportsEveryMoveAndReachesTheDiskInTwoPasses) {
  folder.run("mkdir D");
  for (int i = 0; i < 8; ++i) change();
  watch();
  Reader reader;
  reader.entries = kept(snapshot());
  size_t count = 0;
  for (int round = 0; round < 2000; ++round) {
    const Listing before = snapshot();
    for (auto changes = random() % 8; changes > 0; --changes) change();
    const Listing after = disk();
    std::string records;
    std::map<std::string, std::string> renames;
    bool isLeft = true;  // a side to report
    for (int pass = 1; isLeft; ++pass) {
      ASSERT_LE(pass, 2) << records;
      FSTransit transit(tree());
      isLeft = FSReconciliation(folder / "D", tree(), transit, changes()).Run();
      for (const FSChangedResource& change : transit.Settle()) {
        const Record record(changes().buildMessage(change, false));
        const bool isRename = record.action == "rename";
        records += shortened(changes().buildMessage(change, false)) + "; ";
        const auto known = reader.entries.find(isRename ? record.oldPath : record.path);
        ASSERT_EQ(known != reader.entries.end(), record.action != "create") << records;
        if (isRename) {
          renames[record.oldPath] = record.path;
          const auto replaced = reader.entries.find(record.path);
          ASSERT_TRUE(replaced == reader.entries.end() || replaced->second != Reader::kFolder);
        }
        reader.follow(record);
      }
    }
    SCOPED_TRACE("round " + std::to_string(round) + ": " + records);
    ASSERT_EQ(reader.entries, kept(after));
    ASSERT_EQ(kept(snapshot()), kept(after));
    ASSERT_EQ(files(snapshot()), files(after));
    for (const auto& [old, name] : renames) {
      ASSERT_EQ(file(before.at(old)), file(after.at(name))) << old;
    }
    for (const auto& [old, name] : moves(before, after)) ASSERT_EQ(renames[old], name) << old;
    count += renames.size();
    ASSERT_EQ(batch({"D/"}), Texts{});
    expectNothingLeft();
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(count, 500U);
}

}  // namespace
