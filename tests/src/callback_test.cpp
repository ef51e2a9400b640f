#include "FSChangeBatch.h"
#include "FSPaths.h"
#include "FSReconciliation.h"
#include "watcher_test.h"

namespace {

// What happens to a folder that holds A with the file f, and B, step by step: the changes on the
// disk, the batch that tells of them, and the records that come of it.
const char* const kStories[] = {
    "nothing: touch A 5 | A/ B/ / none/ | -",
    "rename: mv A/f A/h | A/ | rename file A/f -> A/h || - | A/ A/ | -",
    "change: touch A/f 2 | A/ | change file A/f || touch A/f 2 | A/ | -",
    "goneAndNew: rm A/f; touch A/k | A/ | delete file A/f || - | A/ | create file A/k",
    "goneAndNewAtOnce: rm A/f; touch A/k | A/ A/ | delete file A/f; create file A/k",
    "goneFolder: rm A | A/ / | delete folder A || - | A/ | -",
    "goneFolderLast: rm A | / A/ | delete file A/f; delete folder A",
    "newFolder: mkdir N; touch N/x | N/ / | create folder N; create file N/x || - | N/ / | -",
    "newFolderLast: mkdir N; touch N/x | / N/ | "
    "create file N/x; create folder N; create file N/x",
    "newFolders: mkdir N/M; touch N/M/x | / | "
    "create folder N; create folder N/M; create file N/M/x",
    "move: mv A/f B/f | A/ B/ | rename file A/f -> B/f",
    "moveSourceFirst: mv A/f B/f | B/ A/ | rename file A/f -> B/f",
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
    "folderMove: mv A B/C; rm B/C/f; touch B/C/k | B/ / | rename folder A -> B/C || - "
    "| B/C/ B/C/ | delete file B/C/f; create file B/C/k",
    "folderRename: mv A C; rm C/f | / | rename folder A -> C || - | C/ A/ | delete file C/f",
    "chain: touch A/g 1 | A/ | create file A/g || "
    "mv A/f B/x; mv A/g A/f | A/ B/ | create file B/x; rename file A/g -> A/f",
    "folderChain: mv A C; mv B A | / / | rename folder A -> C; rename folder B -> A || - | A/ C/ | "
    "-",
    "swap: touch A/g 2 | A/ | create file A/g || "
    "mv A/f t; mv A/g A/f; mv t A/g | A/ A/ | change file A/f; change file A/g",
    "folderSwap: mv A t; mv B A; mv t B | A/ B/ / | rename file A/f -> B/f || "
    "mv A C | / | rename folder A -> C",
    "severalNames: ln A/f A/h; ln A/f B/h | A/ B/ | create file B/h; create file A/h || "
    "rm A/f; rm B/h | A/ B/ | delete file B/h; delete file A/f || "
    "ln A/h B/x; rm A/h | A/ B/ | rename file A/h -> B/x",
    "ontoExistingName: touch A/g | A/ | create file A/g || "
    "mv A/f A/g | A/ A/ | rename file A/f -> A/g || touch A/f | A/ | create file A/f",
    "ontoExistingFolder: mkdir C | / | create folder C || "
    "mv A C | / / | delete folder C; rename folder A -> C",
    "ontoExistingFolderBesideOthers: mkdir C | / | create folder C || "
    "mv A C; touch p; touch q; rm p; rm q; mkdir N/M | / / | "
    "delete folder C; rename folder A -> C; create folder N; create folder N/M",
    "ontoMovedName: touch A/g 2 | A/ | create file A/g || "
    "mv A/g A/h; mv A/f A/g; touch A/f 3 | A/ A/ | "
    "rename file A/g -> A/h; rename file A/f -> A/g; create file A/f",
    "ontoNameOfAMovedFile: touch g | / | create file g || "
    "mv g h; mv A g | / / | rename file g -> h; rename folder A -> g",
    "fileAndFolderSwap: touch g | / | create file g || mv A t; mv g A; mv t g | / / | "
    "delete file g; rename folder A -> g; create file A",
    "replacedInItsSecond: touch o 1; mv o A/f | A/ | - || mv A/f A/h | A/ | "
    "rename file A/f -> A/h",
    "otherKind: rm A; touch A | A/ / | delete folder A; create file A || "
    "rm A; mkdir A; touch A/f | / | delete file A; create folder A; create file A/f",
    "outOfGoneIntoNewFolder: mkdir N; mv A/f N/f; rm A | N/ / / A/ | "
    "delete file A/f; delete folder A; create folder N; create file N/f",
    "folderMoveNamedAtItsOldPlace: mv A B/C | / A/ B/ | "
    "delete file A/f; rename folder A -> B/C; create file B/C/f",
    "folderMoveNamedAtItsNewPlace: mv A B/C; rm B/C/f | / B/C/ B/ | "
    "rename folder A -> B/C; delete file B/C/f",
    "refused: touch A/f 2 | /var/A/ | -",
};

class CallbackTest : public WatcherTest {
 protected:
  CallbackTest() {
    folder.run("mkdir A; mkdir B; touch A/f 1");
    watch();
  }

  // The first pass of a batch during which the disk moves on: runs each command and then compares
  // the folder.
  Texts interleaved(const std::vector<std::pair<const char*, const char*>>& steps) {
    FSTransit transit(tree());
    for (const auto& [command, name] : steps) {
      folder.run(command);
      FSReconciliation(FSPaths::keyOf(folder / name), tree(), transit, changes()).Run();
    }
    FSChangeBatch(tree(), changes(), transit).Emit();
    transit.Check();
    return records();
  }
};

class StoryTest : public CallbackTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Of, StoryTest, testing::ValuesIn(kStories),
                         [](const auto& story) { return Utility::split2(story.param, ':')[0]; });

TEST_P(StoryTest, IsTold) {
  const std::string story = GetParam();
  for (const std::string& step : pieces(story.substr(story.find(": ") + 2), " || ")) {
    const Texts parts = pieces(step, " | ");
    if (parts[0] != "-") folder.run(parts[0]);
    EXPECT_EQ(batch(pieces(parts[1])), parts[2] == "-" ? Texts{} : pieces(parts[2], "; ")) << step;
  }
}

TEST_F(CallbackTest, FollowsWhatMovesDuringABatch) {
  EXPECT_EQ(interleaved({{"mv A/f B/t", "B/"}, {"mv B/t A/f", "B/"}, {"", "A/"}}),
            (Texts{"create file B/t", "delete file B/t"}));
  EXPECT_EQ(interleaved({{"mv A/f B/t", "B/"}, {"", "A/"}, {"mv B/t B/u", "B/"}}),
            (Texts{"rename file A/f -> B/t", "rename file B/t -> B/u"}));
  EXPECT_EQ(interleaved({{"mkdir N", ""}, {"mkdir N/M; mv N O", ""}}),
            (Texts{"create folder N", "rename folder N -> O"}));
  EXPECT_EQ(batch({}), Texts{});
  EXPECT_EQ(batch({"B/"}), Texts{"create folder O/M"});
  EXPECT_EQ(interleaved({{"mkdir N; touch N/x", "N/"}, {"rm N", ""}}), Texts{"create file N/x"});
  EXPECT_EQ(batch({"B/"}), Texts{"delete file N/x"});
  EXPECT_EQ(interleaved({{"mv O B/O", "B/"}, {"", ""}, {"mv B/O B/P; rm B/P/M", "B/"}}),
            (Texts{"rename folder O -> B/O", "rename folder B/O -> B/P"}));
  EXPECT_EQ(batch({"B/P/"}), Texts{"delete folder B/P/M"});
}

TEST_F(CallbackTest, PairsNoFolderWithOneBelowIt) {
  folder.run("mkdir e; mkdir a");
  batch({"/"});
  EXPECT_EQ(interleaved({{"mv a i; mv e i/e; mv i e", "e/"}, {"", ""}}),
            (Texts{"create folder e/e", "delete folder e", "rename folder a -> e"}));
  EXPECT_EQ(batch({"e/"}), Texts{"create folder e/e"});
}

TEST_F(CallbackTest, GivesARenameTheAttributesOfItsEarlierHalf) {
  folder.run("mv A/f B/f; touch B/f 2");
  batch({"A/", "B/"});
  EXPECT_NE(lines.at(0).find(" modified=\"2\""), std::string::npos) << lines[0];
  folder.run("mv B/f A/f; touch A/f 3");
  batch({"A/", "B/"});
  EXPECT_NE(lines.at(0).find(" modified=\"2\""), std::string::npos) << lines[0];
}

TEST_F(CallbackTest, TellsOfTheWatchedFolderItself) {
  const auto rootChanged = [&](FSEventStreamEventId id) {
    return batch({"/"}, kFSEventStreamEventFlagRootChanged, id);
  };
  FSResource start = *_pathResource;
  start.inode = 42;
  _pathResource = std::make_shared<FSResource>(start);
  EXPECT_EQ(rootChanged(7), Texts{});
  std::filesystem::remove_all(folder.path());
  EXPECT_EQ(rootChanged(0), Texts{"rootdelete folder /"});
  EXPECT_NE(lines[0].find("inode=\"42\""), std::string::npos) << lines[0];
  EXPECT_EQ(saved(), "");
  folder.run("mkdir .; touch g");
  _showAll = true;
  for (const bool isKnown : {true, false}) {
    if (!isKnown) _pathResource = nullptr;
    EXPECT_EQ(rootChanged(0),
              (Texts{"rootcreate folder /", "scan begin", "sync file g", "scan complete"}));
    EXPECT_EQ(lines[0].find("inode=\"42\"") != std::string::npos, isKnown) << lines[0];
    EXPECT_EQ(saved(), "/: g");
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
