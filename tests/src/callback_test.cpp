#include "FSChangeBatch.h"
#include "FSPaths.h"
#include "FSReconciliation.h"
#include "watcher_test.h"

namespace {

// What happens to a folder that holds A with the file f, and B, step by step: the changes on the
// disk, the batch of events that name folders, and the records. "-" stands for none.
const char* const kStories[] = {
    "nothing: touch A 5 | A/ B/ / none/ | -",
    "file: mv A/f A/h | A/ | rename file A/f -> A/h || - | A/ A/ | - || "
    "touch A/h 2 | A/ | change file A/h || touch A/h 2 | A/ | -",
    "goneAndNew: rm A/f; touch A/k | A/ | delete file A/f || - | A/ | create file A/k || "
    "rm A/k; touch A/l | A/ A/ | delete file A/k; create file A/l",
    "goneFolder: rm A | A/ / | delete folder A || - | A/ | -",
    "goneFolderLast: rm A | / A/ | delete file A/f; delete folder A",
    "newFolders: mkdir N/M; touch N/M/x | N/ / | "
    "create folder N; create folder N/M; create file N/M/x || - | N/M/ N/ / | -",
    "newFolderLast: mkdir N; touch N/x | / N/ | "
    "create file N/x; create folder N; create file N/x",
    "moveOfAWrittenFile: mv A/f B/f; touch B/f 9 | A/ B/ | "
    "rename file A/f -> B/f; change file B/f || "
    "mv B/f A/f; touch A/f 8 | A/ B/ | rename file B/f -> A/f; change file A/f",
    "moveOfAWrittenFileFromAFolderThatGains: touch A/f 9; mkdir A/n; mv A/f A/n/f | A/n/ A/ A/ | "
    "create folder A/n; rename file A/f -> A/n/f; change file A/n/f",
    "moveIntoNewFolder: mkdir N; mv A/f N/f | A/ N/ / | create folder N; rename file A/f -> N/f || "
    "mkdir M; mv N/f M/f | M/ / N/ | create folder M; rename file N/f -> M/f || "
    "touch M/f 2 | M/ | change file M/f",
    "moveOutOfRenamedFolder: mv A/f B/f; mv A Z | Z/ B/ / | "
    "rename folder A -> Z; rename file Z/f -> B/f",
    "moveIntoRenamedFolder: mv A/f B/f; mv B Z | Z/ A/ / | "
    "rename folder B -> Z; rename file A/f -> Z/f",
    "folderMoveNamedAtItsOldPlace: mv A B/C | / A/ B/ | "
    "delete file A/f; rename folder A -> B/C; create file B/C/f",
    "folderMoveNamedAtItsNewPlace: mv A B/C; rm B/C/f | / B/C/ B/ | "
    "rename folder A -> B/C; delete file B/C/f",
    "folderRename: mv A C; rm C/f | / | rename folder A -> C || - | C/ A/ | delete file C/f",
    "chain: touch A/g 1 | A/ | create file A/g || "
    "mv A/f B/x; mv A/g A/f | A/ B/ | create file B/x; rename file A/g -> A/f",
    "folderChain: mv A C; mv B A | / / | rename folder A -> C; rename folder B -> A || - | A/ C/ | "
    "-",
    "swap: touch A/g 2 | A/ | create file A/g || "
    "swap A/f A/g | A/ A/ | change file A/f; change file A/g",
    "folderSwap: swap A B | A/ B/ / | rename file A/f -> B/f",
    "folderLast: mkdir N; touch N/x 1 | N/ | create file N/x || touch N/x 2 | N/ | "
    "create file N/x || - | / | create folder N; create file N/x",
    "fileAndFolderSwap: touch g | / | create file g || swap A g | / / | "
    "delete file g; rename folder A -> g; create file A",
    "severalNames: ln A/f A/h; ln A/f B/h | A/ B/ | create file B/h; create file A/h || "
    "rm A/f; rm B/h | A/ B/ | delete file B/h; delete file A/f || "
    "ln A/h B/x; rm A/h | A/ B/ | rename file A/h -> B/x",
    "ontoExistingName: touch A/g | A/ | create file A/g || "
    "mv A/f A/g | A/ A/ | rename file A/f -> A/g || touch A/f | A/ | create file A/f",
    "ontoExistingFolder: mkdir C | / | create folder C || "
    "mv A C; touch p; touch q; rm p; rm q; mkdir N/M | / / | "
    "delete folder C; rename folder A -> C; create folder N; create folder N/M",
    "ontoMovedName: touch A/g 2 | A/ | create file A/g || "
    "mv A/g A/h; mv A/f A/g; touch A/f 3 | A/ A/ | "
    "rename file A/g -> A/h; rename file A/f -> A/g; create file A/f",
    "ontoNameOfAMovedFile: touch g | / | create file g || "
    "mv g h; mv A g | / / | rename file g -> h; rename folder A -> g",
    "replacedInItsSecond: touch o 1; mv o A/f | A/ | - || mv A/f A/h | A/ | "
    "rename file A/f -> A/h",
    "otherKind: rm A; touch A | A/ / | delete folder A; create file A || "
    "rm A; mkdir A; touch A/f | / | delete file A; create folder A; create file A/f",
    "otherKindInANewFolder: mkdir N/x | N/ | create folder N/x || rm N/x; touch N/x | / | "
    "create folder N; delete folder N/x; create file N/x",
    "outOfGoneIntoNewFolder: mkdir N; mv A/f N/f; rm A | N/ / / A/ | "
    "delete file A/f; delete folder A; create folder N; create file N/f",
};

// What happens while a batch is compared: before it; step by step the changes, each followed by the
// comparison of a folder; the records; then, unless nothing is in doubt, another batch and its
// records.
const char* const kRaces[] = {
    "newFolder: - | mkdir N; touch N/x > / | create folder N; create file N/x",
    "goneAndMadeAgain: - | rm A > /, mkdir A; touch A/n > / | "
    "delete folder A; create folder A; create file A/n",
    "madeAgainAndCompared: - | rm A > /, mkdir A; touch A/f 1 > /, - > A/ | "
    "delete folder A; create folder A; create file A/f",
    "passesThroughAFolder: mkdir i | mv A/f B/t > B/, mv B/t i/t > i/, - > A/ | "
    "create file B/t; rename file A/f -> i/t | B/ | delete file B/t",
    "entryOfAGoneFolder: - | mkdir N; touch N/x > N/, rm N; mv A N > / | "
    "create file N/x; delete file N/x; rename folder A -> N | none/ | -",
    "entriesBelowANewFile: - | mkdir N/M; touch N/M/x > N/, - > N/M/, rm N; touch N > / | "
    "create folder N/M; create file N/M/x; delete file N/M/x; delete folder N/M; create file N "
    "| none/ | -",
    "entryBelowAnOldFile: touch N | rm N; mkdir N; touch N/x > N/ | - | / | "
    "delete file N; create folder N; create file N/x",
    "cameAndWent: - | mv A/f B/t > B/, mv B/t A/f > B/, - > A/ | "
    "create file B/t; delete file B/t | none/ | -",
    "movesTwice: - | mv A/f B/t > B/, - > A/, mv B/t B/u > B/ | "
    "rename file A/f -> B/t; rename file B/t -> B/u | none/ | -",
    "folderMovesTwice: - | mv A B/O > B/, - > /, mv B/O B/P; rm B/P/f > B/ | "
    "rename folder A -> B/O; rename folder B/O -> B/P | B/P/ | delete file B/P/f",
    "newFolderMoves: - | mkdir N > /, mkdir N/M; mv N O > / | "
    "create folder N; rename folder N -> O | none/ | create folder O/M",
    "newFolderGoes: - | mkdir N; touch N/x > N/, rm N > / | create file N/x | none/ | "
    "delete file N/x",
    "comparedFolderMoves: - | touch A/f 5 > A/, mv A Z > /, - > Z/ | "
    "change file A/f; rename folder A -> Z | none/ | -",
    "movedFolderMovesWithTheOneAbove: mkdir A/s; touch A/s/x | "
    "mv A/s A/t > A/, mv A Z > /, rm Z/t/x > Z/t/ | "
    "rename folder A/s -> A/t; rename folder A -> Z; delete file Z/t/x | none/ | -",
    "comparedFolderIsReplaced: - | - > A/, mv A t; mv B A; touch A/n > / | "
    "rename folder A -> t; rename folder B -> A | none/ | create file A/n",
    "replaced: - | swap A B > / | - | none/ | rename file A/f -> B/f",
    "replacedAfterItsComparison: - | - > A/, swap A B > / | - | none/ | rename file A/f -> B/f",
    "goesBelowItself: rm A/f; mkdir i | mv A j; mv B j/B; mv j B > B/, - > / | "
    "create folder B/B; delete folder B; rename folder A -> B | B/ | create folder B/B",
};

class CallbackTest : public WatcherTest {
 protected:
  CallbackTest() {
    folder.run("mkdir A; mkdir B; touch A/f 1");
    watch();
  }

  void run(const std::string& commands) {
    if (commands != "-") folder.run(commands);
  }
  static Texts texts(const std::string& records) {
    return records == "-" ? Texts{} : pieces(records, "; ");
  }
};

class StoryTest : public CallbackTest, public testing::WithParamInterface<const char*> {
 protected:
  const std::string story = std::string(GetParam()).substr(name(GetParam()).size() + 2);

 public:
  static std::string name(const std::string& story) { return story.substr(0, story.find(':')); }
};
class RaceStoryTest : public StoryTest {};
const auto nameOf = [](const auto& story) { return StoryTest::name(story.param); };
INSTANTIATE_TEST_SUITE_P(Of, StoryTest, testing::ValuesIn(kStories), nameOf);
INSTANTIATE_TEST_SUITE_P(Of, RaceStoryTest, testing::ValuesIn(kRaces), nameOf);

TEST_P(StoryTest, IsReported) {
  for (const std::string& step : pieces(story, " || ")) {
    const Texts parts = pieces(step, " | ");
    run(parts[0]);
    EXPECT_EQ(batch(pieces(parts[1])), texts(parts[2])) << step;
  }
  expectNothingLeft();
}

TEST_P(RaceStoryTest, IsReported) {
  const Texts parts = pieces(story, " | ");
  run(parts[0]);
  watch();
  FSTransit transit(tree());
  for (const std::string& step : pieces(parts[1], ", ")) {
    const Texts both = pieces(step, " > ");
    run(both[0]);
    const std::string key = FSPaths::keyOf(folder / (both[1] == "/" ? "" : both[1]));
    FSReconciliation(key, tree(), transit, changes()).Run();
  }
  FSChangeBatch(tree(), changes(), transit).Emit();
  transit.Check();
  EXPECT_EQ(records(), texts(parts[2]));
  if (parts.size() > 3) {
    EXPECT_EQ(batch({parts[3]}), texts(parts[4]));
  }
  expectNothingLeft();
}

TEST_F(CallbackTest, GivesARenameTheAttributesOfItsEarlierHalf) {
  for (const char* move : {"mv A/f B/f; touch B/f 2", "mv B/f A/f; touch A/f 3"}) {
    folder.run(move);
    batch({"A/", "B/"});
    EXPECT_EQ(Record(lines.at(0)).modified, "2") << lines[0];
  }
}

TEST_F(CallbackTest, ReportsTheWatchedFolderItself) {
  const auto rootChanged = [&](FSEventStreamEventId id) {
    return batch({"/"}, kFSEventStreamEventFlagRootChanged, id);
  };
  const auto hasOldInode = [&] { return lines[0].find("inode=\"42\"") != std::string::npos; };
  FSResource start = *_pathResource;
  start.inode = 42;
  _pathResource = std::make_shared<FSResource>(start);
  EXPECT_EQ(rootChanged(7), Texts{});
  folder.run("mkdir N; touch N/x");
  EXPECT_EQ(batch({"N/"}), Texts{"create file N/x"});  // leaves N in doubt
  std::filesystem::remove_all(folder.path());
  EXPECT_EQ(rootChanged(0), Texts{"rootdelete folder /"});
  EXPECT_TRUE(hasOldInode()) << lines[0];
  EXPECT_EQ(saved(), "");
  folder.run("mkdir .; touch g");
  _showAll = true;
  for (const bool isKnown : {true, false}) {
    if (!isKnown) _pathResource = nullptr;
    EXPECT_EQ(rootChanged(0),
              (Texts{"rootcreate folder /", "scan begin", "sync file g", "scan complete"}));
    EXPECT_EQ(hasOldInode(), isKnown) << lines[0];
    EXPECT_EQ(saved(), "/: g");
    expectNothingLeft();
  }
  _showAll = false;
  std::filesystem::remove_all(folder.path());
  EXPECT_EQ(rootChanged(0), Texts{"rootdelete folder /"});
}

TEST_F(CallbackTest, LogsEventsAndFindingsButNotRefusedPaths) {
  const TempFolder elsewhere;
  changes().logToFile(true, elsewhere / "log");
  folder.run("touch A/f 2");
  batch({"/var/x/", "A/"}, kFSEventStreamEventFlagMustScanSubDirs);
  folder.run("mv A/f A/k; mkdir N");
  batch({"A/", "/"});
  folder.run("rm A");
  batch({"/"});
  batch({"/"}, kFSEventStreamEventFlagRootChanged, 9);
  Texts log = readLog(elsewhere / "log");
  for (std::string& line : log) line = shortened(line);
  EXPECT_EQ(log, (Texts{R"(CHANGED "A/" , EVENT ID 7, FLAGS 1)", R"(* CHANGED file "A/f")",
                        "change file A/f", R"(CHANGED "" , EVENT ID 7, FLAGS 0)",
                        R"(* CREATED dir "N")", R"(CHANGED "A/" , EVENT ID 7, FLAGS 0)",
                        R"(* RENAMED file "A/k")", "create folder N", "rename file A/f -> A/k",
                        R"(CHANGED "" , EVENT ID 7, FLAGS 0)", R"(* REMOVED dir "A")",
                        "delete folder A", R"(ROOT FOLDER CHANGED "" , EVENT ID 9, FLAGS 32)"}));
}

TEST(IndexOfByINode, IsTheFirstPosition) {
  const FSChangedResource one("create", FSResource(1, "a", false, {}, {}, 0, ""));
  const FSChangedResource two("delete", FSResource(2, "a", false, {}, {}, 0, ""));
  EXPECT_EQ(FSEventWatcher::IndexOfByINode(two, {one, two, two}), 1);
  EXPECT_EQ(FSEventWatcher::IndexOfByINode(two, {one}), -1);
}

}  // namespace
