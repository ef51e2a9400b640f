// What the project's code does with the faults of the kernel.
#include <cstring>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "layer.h"
#include "watcher_test.h"

namespace {

namespace fs = std::filesystem;

using Names = std::set<std::string>;
using Faults = std::map<std::string, std::string>;  // by call: "fail", "fail once", or what is done
                                                    // before, once

// The table's folder is "t"; what is beside it is outside.
class FaultTest : public WatcherTest {
 protected:
  ~FaultTest() override {
    beforeCall = nullptr;
    queue = {};
  }

  void inject(Faults faults, int error = 0, Queue events = {}) {
    queue = events;
    injected = 0;
    beforeCall = [=, this](const std::string& call) mutable {
      const auto fault = faults.find(shortened(call));
      if (fault == faults.end()) return 0;
      ++injected;
      if (fault->second == "fail") return error;
      const std::string commands = std::exchange(fault->second, "");
      if (commands == "fail once") return error;
      folder.run(commands);
      return 0;
    };
  }

  void watchTable() { table.WatchRoot(root.path(), root.Watch(now).folder); }

  // What is named once all is read and visited.
  Names cut() {
    table.Read();
    for (int visits = 0; visits < 20; ++visits) table.VisitNext();
    table.NoteRoot(OpenFolder(folder / "t"));
    for (now += std::chrono::minutes(1); table.RetryNext(now);) {
    }
    Names names;
    isLost = false;
    for (const auto& [path, flags, ignored] : table.Cut()) {
      names.insert(shortened(path));
      isLost = flags != 0;
    }
    return names;
  }

  Names folders() const {
    Names found = {"t/"};
    for (const auto& entry : fs::recursive_directory_iterator(folder / "t")) {
      if (entry.is_directory()) found.insert(shortened(entry.path()) + "/");
    }
    return found;
  }

  // Without faults, and after what is named until it is quiet, which it returns, a change in each
  // folder on the disk names these, and no others are watched.
  Names expectInStep() {
    Names named;
    inject({});
    for (int batches = 0; batches < 6; ++batches) named.merge(cut());
    for (const std::string& path : folders()) {
      if (!fs::remove(folder / (path + "mark"))) folder.write(path + "mark", "");
    }
    EXPECT_EQ(cut(), folders());
    EXPECT_FALSE(fs::current_path().string().starts_with(folder.path()));
    EXPECT_EQ(expectEveryFolderWatched(table.number(), folder / "t"), table.WatchedCount());
    return named;
  }

  Root root{folder / "t"};
  WatchTable table{root};
  WatchTable::Time now;
  bool isLost = false;
  int injected = 0;
};

TEST_F(FaultTest, VisitsMakeUpForRefusedWatches) {
  const std::pair<int, std::string> cases[] = {
      {ENOSPC, "t t/a t/a/b t/c t/n t/n/m t/c/a t/c/a/b"}, {ENOMEM, "t/a t/c/a"}, {EACCES, "t"}};
  for (const auto& [error, refused] : cases) {
    SCOPED_TRACE(refused);
    Faults faults;
    for (const std::string& path : pieces(refused)) faults["watch " + path] = "fail";
    folder.run("mkdir t/a/b; mkdir t/c; touch t/a/f");
    inject(faults, error, {.size = kOneEvent});
    watchTable();
    EXPECT_EQ(cut(), Names{});
    folder.run("touch t/a/b/f; rm t/a/f; mkdir t/n/m");
    EXPECT_EQ(cut(), (Names{"t/", "t/a/", "t/a/b/", "t/n/", "t/n/m/"}));
    size_t unwatched = 0;
    for (const std::string& path : pieces(refused)) unwatched += fs::exists(folder / path);
    EXPECT_EQ(table.UnwatchedCount(), unwatched);
    for (const std::string change : {"write t/a/b/f", "touch t/a/b/x; rm t/a/b/x"}) {
      EXPECT_TRUE(comesTrue([&] {  // times may be coarse
        folder.run(change);
        return cut() == Names{"t/a/b/"};
      }));
    }
    folder.run("mv t/a t/c/a; rm t/n");
    EXPECT_EQ(cut(), (Names{"t/", "t/c/"}));
    for (const std::string move : {"mv t/c/a/b t/b", "mv t/b t/c/a/b"}) {
      folder.run(move);
      table.Read();
    }
    for (int batches = 0; batches < 4; ++batches) cut();
    EXPECT_EQ(expectInStep(), Names{});
    folder.run("rm t");
  }
}

TEST_F(FaultTest, AnOpenFileHasAStatusInAThreadThatHasNotSeenItsFileSystem) {
  folder.run("touch f");
  const Descriptor file(open((folder / "f").c_str(), O_PATH));
  std::optional<FileStatus> status;
  std::thread([&] { status = readStatus(file.number(), ""); }).join();
  EXPECT_TRUE(status);
}

// The disk changes, or no descriptor is left, while the table looks at what has changed, or,
// without a change, at everything.
TEST_F(FaultTest, EndsInStepWithTheDisk) {
  const std::pair<std::string, Faults> cases[] = {
      {"mkdir t/n/m", {{"open t/n", "rm t/n"}}},
      {"mkdir t/n/m", {{"open t/n/m", "mv t/n/m t/m; mkdir t/n/m/o"}}},
      {"mkdir t/n/m", {{"enter t/n", "fail"}}},
      {"mkdir t/n/m", {{"enter " + fs::current_path().string(), "fail"}}},
      {"mkdir t/n/m", {{"watch t/n", "mkdir t/n/o/p"}}},
      {"mkdir t/n/m", {{"watch t/n", "rm t/n; mkdir t/n/o"}}},
      {"mv t/a t/c/a", {{"watch t/c/a", "mv t/c t/d; mkdir t/d/a/b/n/m"}}},
      {"mkdir t/a/d; rm t/a; mv t/c t/a", {{"watch t/a", "mv t/a t/c"}}},
      {"", {{"open t/a", "fail"}}},
      {"mkdir t/n/m", {{"open t/n", "fail"}}},
      {"mv t/a t/c/a", {{"open t/a", "fail"}, {"open t/c/a", "fail"}}},
      {"mv t/a x", {{"open t/a", "fail"}}},
      {"mv t/a y; mkdir t/a/n", {{"open t/a", "fail"}}},
      {"touch t/f; mkdir t/a/o/p", {{"lost", ""}, {"open t/a", "fail"}}},
      {"touch t/f; mkdir t/a/n; mv t/a z", {{"lost", ""}, {"open t/c/d", "mv z t/c/z"}}}};
  for (const auto& [changes, faults] : cases) {
    SCOPED_TRACE(changes + " > " + faults.rbegin()->first + ": " + faults.rbegin()->second);
    folder.run("mkdir t/a/b; mkdir t/c/d");
    watchTable();
    inject(faults, EMFILE, {.size = kOneEvent, .isFull = faults.contains("lost")});
    if (changes.empty()) watchTable();
    folder.run(changes);
    cut();
    EXPECT_GT(injected, 0);
    expectInStep();
    folder.run("rm t");
  }
}

TEST_F(FaultTest, ReadsNoLongerThanNeededWhereFoldersComeWithoutEnd) {
  folder.run("mkdir t");
  watchTable();
  int left = 1000;
  beforeCall = [&](const std::string& call) {
    if (left > 0 && call.starts_with("open")) folder.run("mkdir t/" + std::to_string(left--));
    return 0;
  };
  folder.run("mkdir t/n");
  table.Read();
  EXPECT_GT(left, 900);
  EXPECT_TRUE(expectInStep().contains("t/"));
}

TEST_F(FaultTest, FollowsAFolderToItsNameInTheOtherCase) {
  ignoresCase = true;
  folder.run("mkdir t/d/e");
  watchTable();
  for (const std::string move : {"mv t/d t/D", "mv t/D t/d"}) {
    folder.run(move);
    EXPECT_EQ(cut(), Names{"t/"});
    EXPECT_EQ(expectInStep(), Names{});
  }
  names = {"F", "f"};
  tree().fewestForNames = 0;
  folder.run("touch t/f; touch t/g");
  watch();
  folder.run("mv t/f t/F");
  EXPECT_EQ(batch({"t/", "t/"}), Texts{"rename file t/f -> t/F"});
  ignoresCase = false;
}

TEST_F(FaultTest, LostEventsFailuresAndChangesDuringWalksLeaveItInStep) {
  std::mt19937 random(1);
  const auto any = [&](const char* words) {
    return pieces(words)[random() % pieces(words).size()];
  };
  const auto change = [&] {
    const char* names = "t/a t/b t/a/a t/a/b t/b/a t/b/b t/a/a/c t/b/a/c t/a/a/c/a out";
    return folder.tryToRun(any("mkdir mkdir mv mv mv rm") + " " + any(names) + " " + any(names));
  };
  folder.run("mkdir t");
  watchTable();
  std::map<std::string, int> failed;  // by call
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    int left = 3;
    beforeCall = [&](const std::string& call) {
      if (left > 0 && random() % 8 == 0) left -= change();
      if (random() % 8 != 0) return 0;
      ++failed[call.substr(0, call.find(' '))];
      return call.starts_with("watch") ? ENOSPC : EIO;
    };
    for (auto count = random() % 12; count > 0; --count) {
      change();
      queue = {.size = kOneEvent * (random() % 4 + 1), .isFull = random() % 4 == 0};
      if (random() % 3 == 0) table.Read();
    }
    const bool isFull = round % 2 == 0;
    if (isFull) folder.write("t/f", "x");
    beforeCall = nullptr;
    queue = {.size = kOneEvent, .isFull = isFull};
    Names named = cut();
    EXPECT_GE(isLost, isFull);
    named.merge(expectInStep());  // what is in moved folders
    EXPECT_TRUE(!isFull || std::ranges::includes(named, folders()))
        << testing::PrintToString(named);
  }
  EXPECT_EQ(failed.size(), 5U);
  for (const auto& [call, count] : failed) EXPECT_GT(count, 5) << call;
}

TEST_F(FaultTest, WhatVanishesDuringAListingIsLeftOutAndWhatFailsOnceIsNot) {
  folder.run("mkdir A; touch A/f; touch A/g; touch A/h");
  inject({{"open A", "fail once"}, {"status A/g", "rm A/g"}}, ENOMEM);
  watch();
  EXPECT_EQ(injected, 3);
  EXPECT_EQ(records(), Texts{});
  EXPECT_EQ(saved(true), "/: A | A: A/f A/h");
  folder.run("touch A/n; mkdir N/M");
  inject({{"status A/h", "rm A/h"}, {"status A/n", "rm A/n"}, {"status N", "mv N O"}});
  EXPECT_EQ(batch({"/", "A/"}), Texts{"delete file A/h"});
  EXPECT_EQ(batch({"/"}), (Texts{"create folder O", "create folder O/M"}));
}

// The entries of a folder that changes while it is listed.
TEST_F(FaultTest, WhatIsListedTwiceIsOneEntry) {
  folder.run("mkdir A; touch A/f; touch A/g");
  int calls = 0;
  beforeCall = [&](const std::string& call) {
    return shortened(call) == "list A" && ++calls % 3 == 2 ? kListAgain : 0;
  };
  watch();
  EXPECT_EQ(saved(true), "/: A | A: A/f A/g");
  folder.run("rm A/f; touch A/n");
  EXPECT_EQ(batch({"A/", "A/"}), (Texts{"delete file A/f", "create file A/n"}));
  EXPECT_EQ(calls, 9);
}

TEST_F(FaultTest, AScanReportsWhatMayNotBeReadAndTriesItAgain) {
  folder.run("mkdir A; touch A/f; mkdir B; touch B/g; mkdir C; touch C/h");
  inject({{"open B", "fail"}, {"status C/h", "fail"}}, EACCES);
  watch();
  EXPECT_EQ(records(), (Texts{"error B", "error Permission denied"}));
  EXPECT_EQ(saved(true), "/: A B C | A: A/f | C:");
  inject({});
  FSEventWatcher::RetryUnread(std::chrono::steady_clock::now() + std::chrono::seconds(2));
  EXPECT_EQ(sorted(records()), (Texts{"create file B/g", "create file C/h"}));
  EXPECT_FALSE(tree().retries.Next());
}

TEST_F(FaultTest, AFolderReadByNamesIsReadInFullLaterWhateverIsComparedBelowIt) {
  folder.run("mkdir A/B; touch A/B/g");
  inject({{"open A/B", "fail"}}, EACCES);
  watch();
  inject({});
  names = {"n"};
  tree().fewestForNames = 0;
  folder.run("touch A/n");
  EXPECT_EQ(sorted(batch({"A/B/", "A/"})), (Texts{"create file A/B/g", "create file A/n",
                                                  "error A/B", "error Permission denied"}));
  EXPECT_TRUE(tree().byNames.Next());
}

// A failure that passes says nothing; want of permission says that nothing is there. Either is
// tried again by itself at its own times, or when the folder's attributes change or it moves.
TEST_F(FaultTest, WhatCannotBeReadIsReadAgain) {
  struct Case {
    std::string call;
    int error;
    std::string reported, later;
  };
  const Case cases[] = {
      {"open A", EMFILE, "", "delete file A/f; create file A/n"},
      {"open A", ESTALE, "", "delete file A/f; create file A/n"},
      {"list A", EIO, "", "delete file A/f; create file A/n"},
      {"list A", EACCES, "", "delete file A/f; create file A/n"},
      {"status A/g", EIO, "delete file A/f; create file A/n", ""},
      {"status A/n", ETIMEDOUT, "delete file A/f", "create file A/n"},
      {"status A/g", EACCES, "delete file A/f; delete file A/g; create file A/n",
       "create file A/g"},
      {"open A", EACCES, "delete file A/f; delete file A/g", "create file A/g; create file A/n"},
  };
  for (const auto& [call, error, reported, later] : cases) {
    for (const std::string then : {"wait", "chmod", "mv A C", "rm A"}) {
      SCOPED_TRACE(call + ": " + strerror(error) + ", " + then);
      folder.run("mkdir A; mkdir B; touch A/f; touch A/g");
      watch();
      folder.run("touch A/n; rm A/f");
      inject({{call, "fail"}}, error);
      EXPECT_EQ(sorted(batch({"A/", "A/"})), sorted(pieces(reported, "; ")));
      EXPECT_GT(injected, 0);
      const auto next = tree().retries.Next();
      ASSERT_TRUE(next);
      FSEventWatcher::RetryUnread(*next);
      EXPECT_EQ(records(), Texts{});
      EXPECT_EQ(*tree().retries.Next(), *next + std::chrono::seconds(2));
      inject({});
      EXPECT_EQ(batch({"B/"}), Texts{});
      FSEventWatcher::RetryUnread(*next);
      EXPECT_EQ(records(), Texts{}) << "before its time";
      std::string expected = then == "rm A" ? "delete folder A" : later;
      if (then == "mv A C") {
        expected = "rename folder A -> C; " + std::regex_replace(later, std::regex("A/"), "C/");
      }
      if (then == "wait") {
        FSEventWatcher::RetryUnread(*next + std::chrono::seconds(2));
      } else if (then == "chmod") {
        chmod((folder / "A").c_str(), 0700);
      } else {
        folder.run(then);
      }
      EXPECT_EQ(sorted(then == "wait" ? records() : batch({"/"})), sorted(pieces(expected, "; ")));
      EXPECT_FALSE(tree().retries.Next());
      for (const std::string name : {"A", "C"}) folder.tryToRun("rm " + name);
    }
  }
}

}  // namespace
