// The table of watched folders, the timing of batches and the way to the root, stepped by hand: no
// thread and no clock.
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include "Latency.h"
#include "RootChain.h"
#include "WatchTable.h"
#include "support.h"

namespace {

namespace fs = std::filesystem;

// The watched folder is "t"; what else stands beside it is outside.
class WatchTableTest : public testing::Test {
 protected:
  void watch() { table.WatchRoot(folder / "t", OpenFolder(folder / "t")); }

  // TempFolder's commands, and:
  //   write FILE       appends to it
  //   link TARGET NAME makes a symbolic link
  //   swap NAME NAME   exchanges two names
  //   hold NAME        keeps the folder open until another is held
  //   read             lets the table read its events
  //   drop             loses the events that have not been read, as a full queue does
  //   cut              reads and cuts a batch
  void run(const std::string& commands) {
    for (const std::string& command : pieces(commands, "; ")) {
      std::istringstream words(command);
      std::string verb, name, other;
      words >> verb >> name >> other;
      if (verb == "write") {
        folder.write(name, "x");
      } else if (verb == "link") {
        fs::create_symlink(name, folder / other);
      } else if (verb == "swap") {
        folder.swap(name, other);
      } else if (verb == "hold") {
        held = OpenFolder(folder / name);
      } else if (verb == "read") {
        table.Read();
      } else if (verb == "drop") {
        drop();
      } else if (verb == "cut") {
        table.Read();
        named += (named.empty() ? "" : " | ") + cut();
      } else {
        folder.run(command);
      }
    }
  }

  void drop() {
    std::array<char, 65536> events;
    while (read(table.number(), events.data(), events.size()) > 0) {
    }
    inotify_event overflow{};
    overflow.wd = -1;
    overflow.mask = IN_Q_OVERFLOW;
    table.Apply(std::string(reinterpret_cast<const char*>(&overflow), sizeof overflow));
  }

  // The next batch as its reader meets it, from the last to the first; with "!" where events were
  // lost.
  std::string cut() {
    std::string names;
    const std::vector<NamedFolder> batch = table.Cut();
    for (auto event = batch.rbegin(); event != batch.rend(); ++event) {
      const bool isLost = event->flags == (kFSEventStreamEventFlagMustScanSubDirs |
                                           kFSEventStreamEventFlagKernelDropped);
      EXPECT_TRUE(isLost || event->flags == kFSEventStreamEventFlagNone);
      names += (names.empty() ? "" : " ") + event->path.substr(folder.path().size() + 1) +
               (isLost ? "!" : "");
    }
    return names;
  }

  // The folders of the tree, the watches that the kernel has and those that the table knows of must
  // be as many.
  void expectEveryFolderWatched() {
    size_t folders = 1;
    for (const auto& entry : fs::recursive_directory_iterator(folder / "t")) {
      if (entry.symlink_status().type() == fs::file_type::directory) ++folders;
    }
    const std::string info = "/proc/self/fdinfo/" + std::to_string(table.number());
    EXPECT_EQ(pieces(readFile(info), "inotify wd:").size() - 1, folders);
    EXPECT_EQ(table.WatchedCount(), folders);
  }

  TempFolder folder;
  WatchTable table;
  OpenFolder held;
  std::string named;  // by all batches
};

struct Case {
  std::string before, changes, named;
};
void PrintTo(const Case& test, std::ostream* out) { *out << test.before << " > " << test.changes; }

class WatchTableCases : public WatchTableTest, public testing::WithParamInterface<Case> {};

TEST_P(WatchTableCases, NameWhatChangedAndLeaveNoWatch) {
  run("mkdir t; " + GetParam().before);
  watch();
  run(GetParam().changes);
  EXPECT_EQ(named, GetParam().named);
  expectEveryFolderWatched();
  table.Read();
  EXPECT_EQ(cut(), "") << "after everything has been listed";
}

INSTANTIATE_TEST_SUITE_P(
    Entries, WatchTableCases,
    testing::Values(Case{"mkdir t/a; touch t/f", "write t/f; touch t/a/g; cut", "t/a/ t/"},
                    Case{"mkdir t/a; touch t/a/f; mkdir t/b; touch t/b/f; mkdir t/d/e; mkdir t/z",
                         "rm t/b/f; touch t/z/f; touch t/d/e/f; touch t/d/f; write t/a/f; cut",
                         "t/d/ t/d/e/ t/z/ t/a/ t/b/"},
                    Case{"touch t/f", "touch t/g; rm t/f; cut", "t/ t/"},
                    Case{"touch t/f; touch t/g", "mv t/f t/g; cut", "t/ t/"},
                    Case{"mkdir t/a; touch t/a/g; touch t/f", "mv t/f t/a/g; cut", "t/a/ t/"},
                    Case{"touch t/f", "ln t/f t/g; touch t/f 900; cut", "t/"},
                    Case{"", "touch t/\xff\xfe; mkdir t/\xe4; touch t/\xe4/f; cut", "t/ t/\xe4/"},
                    Case{"mkdir out/x; mkdir t/a",
                         "link ../out t/l; write out/x/f; link ../../out t/a/l; cut", "t/ t/a/"},
                    Case{"mkdir t/a/b", "mv t/a out; link ../out t/a; write out/b/f; cut",
                         "t/ t/"}));

INSTANTIATE_TEST_SUITE_P(
    NewFolders, WatchTableCases,
    testing::Values(
        Case{"", "mkdir t/a; cut; touch t/a/f; cut", "t/ | t/a/"},
        Case{"", "mkdir t/1/2/3/4/5/6/7/8; cut; touch t/1/2/3/4/5/6/7/8/f; cut",
             "t/ t/1/ t/1/2/ t/1/2/3/ t/1/2/3/4/ t/1/2/3/4/5/ t/1/2/3/4/5/6/ t/1/2/3/4/5/6/7/ "
             "t/1/2/3/4/5/6/7/8/ | t/1/2/3/4/5/6/7/8/"},
        Case{"mkdir out/b/c; touch out/b/f", "mv out t/a; cut",
             "t/ t/a/ t/a/ t/a/b/ t/a/b/ t/a/b/c/ t/a/b/c/"},
        Case{"mkdir out", "mv out t/a; cut", "t/ t/a/ t/a/"},
        Case{"mkdir t/a/b; touch t/a/b/f", "rm t/a; mkdir t/a; cut; touch t/a/f; cut",
             "t/ t/ t/a/ t/a/ | t/a/"},
        Case{"mkdir t/a", "hold t/a; rm t/a; mkdir t/a/b; hold t; cut; touch t/a/b/f; cut",
             "t/ t/ t/a/ t/a/ t/a/b/ t/a/b/ | t/a/b/"},
        Case{"mkdir t/a/b", "hold t/a/b; rm t/a; cut; hold t; cut", "t/ | "},
        Case{"touch t/a", "rm t/a; mkdir t/a/b; cut", "t/ t/ t/a/ t/a/b/"}));

INSTANTIATE_TEST_SUITE_P(
    Moves, WatchTableCases,
    testing::Values(
        Case{"mkdir t/a/b; mkdir t/c", "mv t/a t/c/a; cut; touch t/c/a/b/f; cut",
             "t/c/ t/ | t/c/a/b/"},
        Case{"mkdir t/a/b", "mv t/a t/c; mv t/c t/d; cut; touch t/d/b/f; cut", "t/ t/ | t/d/b/"},
        Case{"mkdir t/a/b; mkdir t/c",
             "touch t/a/b/f; mv t/a t/c/a; touch t/c/a/g; cut; touch t/c/a/h; cut",
             "t/c/ t/ | t/c/a/ t/c/a/b/"},
        Case{"mkdir t/a/b; mkdir t/c", "read; mkdir t/a/b/n/m; mv t/a t/c/a; cut; cut",
             "t/c/ t/ | t/c/a/b/ t/c/a/b/n/ t/c/a/b/n/ t/c/a/b/n/m/ t/c/a/b/n/m/"},
        Case{"mkdir t/a; mkdir t/c", "mv t/a t/c/a; mv t/c t/d; cut; touch t/d/a/f; cut; cut",
             "t/ t/ | t/d/ | t/d/a/"},
        Case{"mkdir t/a/x; mkdir t/b/y", "swap t/a t/b; cut; touch t/a/y/f; touch t/b/x/f; cut",
             "t/ t/ t/a/ t/a/ t/a/y/ t/a/y/ t/b/ t/b/ t/b/x/ t/b/x/ | t/a/y/ t/b/x/"},
        Case{"mkdir t/a/x; mkdir t/c; touch t/c/f", "swap t/a t/c/f; cut; touch t/c/f/x/g; cut",
             "t/ t/ t/c/ t/c/ | t/c/f/x/"},
        Case{"mkdir t/a/x; mkdir t/b", "mv t/a t/b; cut; touch t/b/x/f; cut",
             "t/ t/ t/b/ t/b/ t/b/x/ t/b/x/ | t/b/x/"},
        Case{"mkdir t/a/b/c", "mv t/a out; cut; touch out/b/f; cut; mv out t/a; cut",
             "t/ |  | t/ t/a/ t/a/ t/a/b/ t/a/b/ t/a/b/c/ t/a/b/c/"},
        Case{"mkdir t/a/b", "mv t/a out; touch out/f; mkdir out/c; mv out t/a; cut; cut",
             "t/ t/ t/a/ | "}));

INSTANTIATE_TEST_SUITE_P(BeforeTheReaderListed, WatchTableCases,
                         testing::Values(Case{"mkdir t/a/b/c; mkdir out",
                                              "mv t/a z; mv out t/a; read; mkdir t/a/b; cut",
                                              "t/ t/ t/a/ t/a/ t/a/b/ t/a/b/"},
                                         Case{"mkdir t/a; touch t/a/f",
                                              "rm t/a; cut; mkdir t/a; cut", "t/ | t/ t/a/ t/a/"}));

INSTANTIATE_TEST_SUITE_P(
    LostEvents, WatchTableCases,
    testing::Values(
        Case{"mkdir t/a/b; mkdir t/c; mkdir t/d/e; mkdir t/x/y",
             "mv t/a t/c/a; rm t/d; mkdir t/n/m; mv t/x out; drop; cut; touch t/c/a/b/f; cut",
             "t/! t/! t/c/! t/c/! t/n/! t/n/! t/n/m/! t/n/m/! | t/c/a/ t/c/a/ t/c/a/b/ t/c/a/b/"},
        Case{"mkdir t/a; mkdir t/b/c", "drop; swap t/a t/b; drop; mkdir t/a/c/d; cut",
             "t/! t/! t/a/! t/a/! t/a/c/! t/a/c/! t/a/c/d/! t/a/c/d/! t/b/! t/b/!"}));

TEST_F(WatchTableTest, LooksBackAtWhatChangedBeforeTheWatchesStood) {
  run("mkdir t/a/b; touch t/a/f; mkdir t/e; touch t/e/f");
  // The times of files may be ahead of the clock that they are compared with.
  timespec made{}, since{};
  clock_gettime(CLOCK_REALTIME, &made);
  comesTrue([&] {
    clock_gettime(CLOCK_REALTIME_COARSE, &since);
    return std::pair(since.tv_sec, since.tv_nsec) > std::pair(made.tv_sec, made.tv_nsec);
  });
  run("write t/a/f; touch t/n; touch t/e/f 900");
  watch();
  EXPECT_EQ(cut(), "");
  table.LookBack(since);
  EXPECT_EQ(cut(), "t/ t/ t/a/ t/e/");
}

TEST_F(WatchTableTest, TellsHalfAMoveAndItsRootFromOthers) {
  run("mkdir t/a; mkdir t/b; mkdir out");
  watch();
  run("mv t/a t/b/a; read");
  EXPECT_FALSE(table.EndsInMove());
  run("mv t/b out/b; read");
  EXPECT_TRUE(table.EndsInMove());
  EXPECT_FALSE(table.TakeRootDoubt());
  EXPECT_TRUE(table.ProbeRoot(OpenFolder(folder / "t")));
  EXPECT_FALSE(table.ProbeRoot(OpenFolder(folder / "out")));
  run("mv t out/t; mkdir t/c; cut");
  EXPECT_FALSE(table.ProbeRoot(OpenFolder(folder / "t")));
  watch();
  run("rm out; touch t/c/f; cut");
  EXPECT_EQ(named, "t/ | t/c/");
  expectEveryFolderWatched();
}

TEST(Latency, CountsFromTheFirstChange) {
  using std::chrono::milliseconds;
  const auto at = [](int time) { return Latency::Time(milliseconds(time)); };
  Latency latency(milliseconds(100));
  EXPECT_FALSE(latency.Due() || latency.IsDue(at(1000)));
  latency.Want(at(1000));
  latency.Want(at(1090));
  EXPECT_FALSE(latency.IsDue(at(1099)));
  EXPECT_TRUE(latency.IsDue(at(1100)));
  latency.Reset();
  EXPECT_FALSE(latency.IsDue(at(9999)));
  latency.Want(at(1160));
  EXPECT_EQ(latency.Due(), at(1260));
}

class RootChainTest : public WatchTableTest {};

TEST_F(RootChainTest, HearsOfItsOwnNamesOnly) {
  struct Way {
    std::string before, path;
    std::vector<std::string> changes;
  };
  const std::vector<Way> ways = {
      {"mkdir x/t; mkdir y/t; link x l; link y m", "l/t", {"mv m l", "mv y/t z", "rm l"}},
      {"mkdir p/q/t", "p/q/t", {"mv p z", "mv z p", "mv p/q z", "mv z p/q", "rm p/q/t"}},
      {"", "p/q/t", {"mkdir p", "mkdir p/q", "touch p/q/t", "rm p/q/t", "mkdir p/q/t", "rm p"}},
      {"mkdir x/y; mkdir t; link x/y l", "l/../../t", {"mv t u", "mv x z"}},
      {"link m l; link l m", "l/t", {"rm m", "mkdir m/t"}},
  };
  for (const Way& way : ways) {
    for (const bool isRelative : {false, true}) {
      const TempFolder outer;
      run(way.before);
      if (isRelative) fs::current_path(folder.path());
      RootChain chain(isRelative ? way.path : folder / way.path);
      chain.Watch();
      for (const std::string& change : way.changes) {
        folder.write("other", "x");
        EXPECT_FALSE(chain.Read()) << way.path << " before " << change;
        run(change);
        EXPECT_TRUE(chain.Read()) << way.path << " after " << change;
        chain.Watch();
        chain.Read();
      }
      EXPECT_FALSE(chain.NeedsPolling());
      fs::current_path("/");
      for (const auto& entry : fs::directory_iterator(folder.path())) fs::remove_all(entry);
    }
  }
}

}  // namespace
