// The reader, the root and the way to it, stepped by hand: no thread and no clock.
#include "Reader.h"

#include "layer.h"

namespace {

using std::chrono::milliseconds;

// Commands:
//   step     takes one step
//   cut      takes one, another when the latency has passed, and ends the delivery if that has
//            given a batch
//   deliver  the same, but the callback is still running
//   end      ends the delivery
class ReaderTest : public ScriptTest {
 protected:
  static constexpr milliseconds kLatency{100};

  // Runs the commands and starts a reader for the path, which may be relative to the folder.
  void start(const std::string& before, const std::string& path, bool isRelative = false) {
    run(before);
    if (isRelative) std::filesystem::current_path(folder.path());
    reader.emplace(isRelative ? path : folder / path, kLatency);
    reader->Start(now);
  }

  // Whether a batch came, which is noted.
  bool step(Latency::Duration time = {}) {
    const auto batch = reader->Step(now += time);
    if (batch) note(batch->folders);
    return batch.has_value();
  }

  void act(const std::string& command) override {
    if (command == "end") return reader->EndDelivery();
    EXPECT_FALSE(step());
    if (command == "step" || !step(kLatency) || command == "deliver") return;
    reader->EndDelivery();
    EXPECT_FALSE(step());
  }

  std::optional<Reader> reader;
  Reader::Time now{};
};

// A scan enters each folder before it lists it. Commands run before it enters one of them; of what
// they do, the scan sees what is in folders that it enters after that, and the rest is named.
TEST_F(ReaderTest, NamesWhatChangesInFoldersThatAScanHasEntered) {
  struct Case {
    std::string before, commands, named;
  };
  const Case cases[] = {
      {"t", "touch t/a/f 900; touch t/n", ""},
      {"t/a", "touch t/n; touch t/a/f 900", "t/"},
      {"t/a/b", "mkdir t/n/m; write t/a/f", "t/ t/n/ t/n/m/ t/a/"},
      {"t/a/b", "rm t/a/b; touch t/a/b", "t/a/ t/a/"},
      {"t/e", "mv t/a/b t/e/b", "t/a/"},
      {"t/e", "mv t/e t/a/e; write t/a/e/g", "t/a/ t/a/e/ t/a/e/ t/"},
      {"t/e", "mv t t2; mkdir t/x", "t?"},
      {"none", "mv t/e t/a/e; write t/a/e/g", "t/a/ t/"},
  };
  for (const auto& [before, commands, expected] : cases) {
    SCOPED_TRACE(before + ": " + commands);
    run("mkdir t/a/b; touch t/a/f; mkdir t/e");
    reader.emplace(folder / "t", kLatency);
    for (const std::string path : {"t", "t/a", "t/a/b", "t/e", "t/e/b"}) {
      if (path == before) run(commands);
      reader->Enter(folder / path, OpenFolder(folder / path), now);
    }
    reader->Start(now);
    if (before == "none") run(commands);
    run("step");
    EXPECT_EQ(step(kLatency) || step(milliseconds(2)), !expected.empty());
    EXPECT_EQ(named, expected);
    expectEveryFolderWatched(reader->tree(), folder / "t");
    folder.tryToRun("rm t2");
    run("rm t");
    named = "";
  }
}

TEST_F(ReaderTest, CountsTheLatencyFromTheFirstChangeAndDeliversOneBatchAtATime) {
  start("mkdir t/a; touch t/f", "t");
  EXPECT_FALSE(step(kLatency) || reader->NextWake());
  run("write t/f; step");
  EXPECT_TRUE(reader->IsGathering());
  EXPECT_EQ(reader->NextWake(), now + kLatency);
  run("write t/a/f");
  EXPECT_FALSE(step(kLatency - milliseconds(1)));
  EXPECT_TRUE(step(milliseconds(1)));
  run("write t/a/f");
  EXPECT_FALSE(step() || step(10 * kLatency) || reader->NextWake()) << "a callback is running";
  run("end");
  EXPECT_TRUE(step());
  EXPECT_EQ(named, "t/a/ t/ | t/a/");
}

TEST_F(ReaderTest, WaitsForTheSecondHalfOfAMove) {
  start("mkdir t/a; mkdir t/b; touch t/a/f", "t");
  run("mv t/a/f t/b/f");
  queue = {.size = kOneEvent, .reads = 1};
  EXPECT_FALSE(step() || step(kLatency));
  EXPECT_EQ(reader->NextWake(), now + milliseconds(2));
  queue = {};
  EXPECT_TRUE(step(milliseconds(1)));
  run("end; step; mv t/b/f g; step");
  EXPECT_FALSE(step(kLatency));
  EXPECT_TRUE(step(milliseconds(2))) << "there is none";
  EXPECT_EQ(named, "t/b/ t/a/ | t/b/");
}

TEST_F(ReaderTest, VisitsFoldersWithoutAWatchAtItsWakingTimes) {
  bool isRefused = true;
  beforeCall = [&](const std::string& call) {
    return isRefused && call.starts_with("watch " + folder / "t/a") ? ENOSPC : 0;
  };
  start("mkdir t/a/b; mkdir t/d", "t");
  EXPECT_FALSE(step());
  run("touch t/a/b/f");
  int steps = 0;
  for (const auto end = now + std::chrono::seconds(25);
       steps < 20 && reader->NextWake() && *reader->NextWake() < end; ++steps) {
    if (step(std::max(*reader->NextWake() - now, Latency::Duration()))) run("end; step");
    isRefused = named.empty();
  }
  EXPECT_EQ(named, "t/a/b/ t/a/b/");
  EXPECT_LT(steps, 20);
  expectEveryFolderWatched(reader->tree(), folder / "t");
}

// What is there before, the path and, one by one, changes of the root; a "+" before a change says
// that there is a root then.
class RootCases : public ReaderTest,
                  public testing::WithParamInterface<std::tuple<const char*, bool>> {};

TEST_P(RootCases, AreOneEventEachAndTheNewRootIsWatched) {
  const auto& [text, isRelative] = GetParam();
  const Texts parts = pieces(text, " | ");
  const std::string& path = parts[1];
  start("mkdir outside; link x to-x; link y to-y; " + parts[0], path, isRelative);
  std::string expected;
  for (size_t i = 2; i < parts.size(); ++i) {
    run("write other; step");
    EXPECT_FALSE(reader->NextWake()) << "before " << parts[i];
    const bool isThere = parts[i].front() == '+';
    run(parts[i].substr(isThere ? 1 : 0) + "; cut");
    if (isThere) run("write " + path + "/a/f; cut");
    expected += path + (isThere ? "? | " + path + "/a/ | " : "? | ");
  }
  EXPECT_EQ(named + " | ", expected);
  std::filesystem::current_path("/");
}

INSTANTIATE_TEST_SUITE_P(
    Root, RootCases,
    testing::Combine(
        testing::Values(
            "mkdir t/a | t | rm t | +mkdir t/a | mv t u | +mv u t",
            "mkdir t/a; mkdir u/a | t | mv t v | +mv u t | mv t outside/t",
            "mkdir outside | p/q/t | +mkdir p/q/t/a | rm p | +mkdir p/q/t/a | mv p z | +mv z p",
            "mkdir p; mkdir z/t/a | p/q/t | +mv z p/q | rm p/q | +mkdir p/q/t/a",
            "mkdir x/t/a; mkdir y/t/a | to-x/t | +mv to-y to-x | rm y | +mkdir y/t/a",
            "mkdir x/a; mkdir y/a | to-x | +mv to-y to-x | rm to-x | +mkdir to-x/a",
            "mkdir x/y; mkdir t/a; link x/y l | l/../../t | mv t u | +mv u t | mv x z",
            "link m l; link l m | l/t | +rm m; mkdir m/t/a | rm l"),
        testing::Bool()));

TEST_F(ReaderTest, RootIsTheSameAgainOrTakesWhatWasPendingWithIt) {
  start("mkdir p/t/a", "p/t");
  run("mv p z; mv z p; mv p/t z; mkdir z/a/b/c; step");  // looked for where the root is not
  run("mv z p/t; touch p/t/a/f; cut; touch p/t/a/b/c/f; cut; touch p/t/a/g; rm p; cut");
  EXPECT_EQ(named, "p/t/a/ p/t/a/b/ p/t/a/b/ p/t/a/b/c/ p/t/a/b/c/ | p/t/a/b/c/ | p/t?");
}

TEST_F(ReaderTest, RootIsNamedWhereACallbackPossiblyMissedIt) {
  start("mkdir t/a", "t");
  for (const std::string seen : {"step; ", ""}) {
    run("write t/a/f; deliver; mv t z; " + seen + "mv z t; end; cut");
  }
  EXPECT_EQ(named, "t/a/ | t/ | t/a/ | t/");
}

// Where the way to the root cannot be watched, it is looked at every second; the root's own watch
// is quicker.
TEST_F(ReaderTest, RootIsLookedForWithoutAWatchAboveIt) {
  beforeCall = [&](const std::string& call) {
    return call == "watch " + folder.path() || call == "watch " + folder / "p" ? ENOSPC : 0;
  };
  start("mkdir t/a", "t");
  run("rm t; cut");
  EXPECT_EQ(named, "t?");
  run("mkdir t/a");
  EXPECT_FALSE(step() || step(kLatency));
  now = reader->NextWake().value_or(now);
  run("cut");
  EXPECT_EQ(named, "t? | t?");
  run("mv t z; mkdir z/n/m; step; mv z t; cut");
  expectEveryFolderWatched(reader->tree(), folder / "t");
  start("mkdir p/q", "p/q");
  run("mv p z; mkdir z/q/n/m; step; mv z p; cut");
  expectEveryFolderWatched(reader->tree(), folder / "p/q");
}

TEST_F(ReaderTest, GoesOnWithWhatAWalkHasRead) {
  for (int i = 0; i < 80; ++i) run("mkdir t/" + std::to_string(i));
  start("touch t/f", "t");
  beforeCall = [&](const std::string& call) {
    if (call == "list " + folder / "t") folder.write("t/f", "x");
    return 0;
  };
  run("touch t 5; cut; mv t z; mv z t; step");
  EXPECT_FALSE(step(kLatency));
  EXPECT_TRUE(reader->NextWake());
  run("cut");
  EXPECT_EQ(named, "t/");
}

}  // namespace
