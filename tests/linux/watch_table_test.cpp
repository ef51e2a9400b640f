// The table of watched folders, stepped by hand.
#include "layer.h"

namespace {

// What is there before it is watched, the commands, and what they name. The watched folder is "t";
// what else is beside it is outside. Commands:
//   read   lets the table read its events
//   drop   loses the events that have not been read, as a full queue does
//   cut    reads and cuts a batch
class WatchTableCases : public ScriptTest, public testing::WithParamInterface<const char*> {
 protected:
  void act(const std::string& command) override {
    if (command == "drop") queue = {.size = 0, .isFull = true};
    table.Read();
    queue = {};
    if (command == "cut") note(table.Cut());
  }

  Root root{folder / "t"};
  WatchTable table{root};
};

TEST_P(WatchTableCases, NameWhatChangedAndLeaveNoWatch) {
  const Texts parts = pieces(GetParam(), " > ");
  run("mkdir t; " + parts[0]);
  table.WatchRoot(root.path(), root.Watch({}).folder);
  run(parts[1]);
  EXPECT_EQ(named, parts[2]);
  EXPECT_EQ(expectEveryFolderWatched(table.number(), folder / "t"), table.WatchedCount());
  named = "";
  run("cut");
  EXPECT_EQ(named, "") << "after everything has been listed";
}

INSTANTIATE_TEST_SUITE_P(
    Entries, WatchTableCases,
    testing::Values(
        "mkdir t/a; touch t/f > write t/f; touch t/a/g; cut > t/a/ t/",
        "mkdir t/a; touch t/a/f; mkdir t/b; touch t/b/f; mkdir t/d/e; mkdir t/z > "
        "rm t/b/f; touch t/z/f; touch t/d/e/f; touch t/d/f; write t/a/f; cut > "
        "t/d/ t/d/e/ t/z/ t/a/ t/b/",
        "touch t/f > touch t/g; rm t/f; cut > t/ t/",
        "touch t/f; touch t/g > mv t/f t/g; cut > t/ t/",
        "mkdir t/a; touch t/a/g; touch t/f > mv t/f t/a/g; cut > t/a/ t/",
        "touch t/f > ln t/f t/g; touch t/f 900; cut > t/",
        "mkdir t > touch t/\xff\xfe; mkdir t/\xe4; touch t/\xe4/f; cut > t/ t/\xe4/",
        "mkdir out/x; mkdir t/a > link ../out t/l; write out/x/f; link ../../out t/a/l; cut > "
        "t/ t/a/",
        "mkdir t/a/b > mv t/a out; link ../out t/a; write out/b/f; cut > t/ t/"));

INSTANTIATE_TEST_SUITE_P(
    NewFolders, WatchTableCases,
    testing::Values(
        "mkdir t > mkdir t/a; cut; touch t/a/f; cut > t/ | t/a/",
        "mkdir t > mkdir t/1/2/3/4/5/6/7/8; cut; touch t/1/2/3/4/5/6/7/8/f; cut > "
        "t/ t/1/ t/1/2/ t/1/2/3/ t/1/2/3/4/ t/1/2/3/4/5/ t/1/2/3/4/5/6/ t/1/2/3/4/5/6/7/ "
        "t/1/2/3/4/5/6/7/8/ | t/1/2/3/4/5/6/7/8/",
        "mkdir out/b/c; touch out/b/f > mv out t/a; cut > "
        "t/ t/a/ t/a/ t/a/b/ t/a/b/ t/a/b/c/ t/a/b/c/",
        "mkdir out > mv out t/a; cut > t/ t/a/ t/a/",
        "mkdir t/a/b; touch t/a/b/f > rm t/a; mkdir t/a; cut; touch t/a/f; cut > "
        "t/ t/ t/a/ t/a/ | t/a/",
        "mkdir t/a > hold t/a; rm t/a; mkdir t/a/b; hold t; cut; touch t/a/b/f; cut > "
        "t/ t/ t/a/ t/a/ t/a/b/ t/a/b/ | t/a/b/",
        "mkdir t/a/b > hold t/a/b; rm t/a; cut; hold t; cut > t/ | ",
        "mkdir t > mkdir t/a; rm t/a; read; mkdir t/a; cut > t/ t/ t/a/ t/a/",
        "touch t/a > rm t/a; mkdir t/a/b; cut > t/ t/ t/a/ t/a/b/"));

INSTANTIATE_TEST_SUITE_P(
    Moves, WatchTableCases,
    testing::Values(
        "mkdir t/a/b; mkdir t/c > mv t/a t/c/a; cut; touch t/c/a/b/f; cut > t/c/ t/ | t/c/a/b/",
        "mkdir t/a/b > mv t/a t/c; mv t/c t/d; cut; touch t/d/b/f; cut > t/ t/ | t/d/b/",
        "mkdir t/a/b; mkdir t/c > "
        "touch t/a/b/f; mv t/a t/c/a; touch t/c/a/g; cut; touch t/c/a/h; cut > "
        "t/c/ t/ | t/c/a/ t/c/a/b/",
        "mkdir t/a/b; mkdir t/c > read; mkdir t/a/b/n/m; mv t/a t/c/a; cut; cut > "
        "t/c/ t/ | t/c/a/b/ t/c/a/b/n/ t/c/a/b/n/ t/c/a/b/n/m/ t/c/a/b/n/m/",
        "mkdir t/a; mkdir t/c > mv t/a t/c/a; mv t/c t/d; cut; touch t/d/a/f; cut; cut > "
        "t/ t/ | t/d/ | t/d/a/",
        "mkdir t/a/x; mkdir t/b/y > swap t/a t/b; cut; touch t/a/y/f; touch t/b/x/f; cut > "
        "t/ t/ t/a/ t/a/ t/a/y/ t/a/y/ t/b/ t/b/ t/b/x/ t/b/x/ | t/a/y/ t/b/x/",
        "mkdir t/a/x; mkdir t/c; touch t/c/f > swap t/a t/c/f; cut; touch t/c/f/x/g; cut > "
        "t/ t/ t/c/ t/c/ | t/c/f/x/",
        "mkdir t/a/x; mkdir t/b > mv t/a t/b; cut; touch t/b/x/f; cut > "
        "t/ t/ t/b/ t/b/ t/b/x/ t/b/x/ | t/b/x/",
        "mkdir t/a/b/c > mv t/a out; cut; touch out/b/f; cut; mv out t/a; cut > "
        "t/ |  | t/ t/a/ t/a/ t/a/b/ t/a/b/ t/a/b/c/ t/a/b/c/",
        "mkdir t/a/b > mv t/a out; touch out/f; mkdir out/c; mv out t/a; cut; cut > "
        "t/ t/ t/a/ | "));

INSTANTIATE_TEST_SUITE_P(
    BeforeTheReaderListed, WatchTableCases,
    testing::Values("mkdir t/a/b/c; mkdir out > mv t/a z; mv out t/a; read; mkdir t/a/b; cut > "
                    "t/ t/ t/a/ t/a/ t/a/b/ t/a/b/",
                    "mkdir t/a; touch t/a/f > rm t/a; cut; mkdir t/a; cut > t/ | t/ t/a/ t/a/"));

INSTANTIATE_TEST_SUITE_P(
    LostEvents, WatchTableCases,
    testing::Values(
        "mkdir t/a/b; mkdir t/c; mkdir t/d/e; mkdir t/x/y > "
        "mv t/a t/c/a; rm t/d; mkdir t/n/m; mv t/x out; drop; cut; touch t/c/a/b/f; cut > "
        "t/! t/! t/c/! t/c/! t/n/! t/n/! t/n/m/! t/n/m/! | t/c/a/ t/c/a/ t/c/a/b/ t/c/a/b/",
        "mkdir t/a; mkdir t/b/c > drop; swap t/a t/b; drop; mkdir t/a/c/d; cut > "
        "t/! t/! t/a/! t/a/! t/a/c/! t/a/c/! t/a/c/d/! t/a/c/d/! t/b/! t/b/!"));

}  // namespace
