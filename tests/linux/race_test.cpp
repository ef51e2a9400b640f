// The watcher and the table of watches together, on a tree that changes while a callback runs:
// before each folder that the callback opens, something else may happen. Everything is stepped by
// hand, so that a seed gives the same run again.

#include <random>
#include <set>

#include "layer.h"
#include "watcher_test.h"

namespace {

std::vector<NamedFolder> cut;  // the batch that is being delivered
int readByNames = 0;

// Environment variable RACE_SEEDS: how many seeds to try.
int seeds() {
  const char* wanted = std::getenv("RACE_SEEDS");
  return wanted == nullptr ? 6 : std::stoi(wanted);
}

class RaceTest : public WatcherTest, public testing::WithParamInterface<int> {
 protected:
  ~RaceTest() override {
    for (size_t i = 0; i < 3; ++i) folder.tryToRun("rm " + outside(i));
  }

  std::string anyName() {
    std::string name(1, "abc"[random() % 3]);
    while (random() % 3 != 0 && name.size() < 9) name += std::string("/") + "abc"[random() % 3];
    return name;
  }

  void change() {
    static const Texts verbs = pieces("mkdir mkdir touch mv mv mv mv ln rm out in");
    const std::string verb = verbs[random() % verbs.size()], name = anyName(), other = anyName();
    std::string command = verb + " " + name;
    if (verb == "mv" || verb == "ln") command += " " + other;
    if (verb == "touch") command += " " + std::to_string(++clock_);
    if (verb == "out") command = "mv " + name + " " + outside(random());
    if (verb == "in") command = "mv " + outside(random()) + " " + name;
    if (!folder.tryToRun(command)) return;
    done += command + "; ";
    if (verb == "ln") linked.insert(file(FSTree::GetResource(folder / name)));
  }

  // A write through another name of a file is not reported for this one, so of files that have or
  // had several, the second is the reader's.
  Reader::Entries expected() const {
    const Listing now = disk();
    Reader::Entries found = kept(now);
    for (const auto& [path, entry] : now) {
      const auto known = reader.entries.find(path);
      const bool isFile = known != reader.entries.end() && known->second != Reader::kFolder;
      if (isFile && linked.contains(file(entry))) found[path] = known->second;
    }
    return found;
  }

  void deliver() {
    table.Read();
    Texts paths;
    cut = table.Cut();
    for (const NamedFolder& named : cut) {
      paths.push_back(named.path);
      batches += " " + shortened(named.path);
    }
    batches += ";";
    table.BeginDelivery();
    beforeOpening = disturb;
    for (const std::string& record : batch(paths)) seen += record + "; ";
    beforeOpening = nullptr;
    for (const std::string& line : lines) reader.follow(Record(line));
    table.Read();
    table.EndDelivery();
  }

  // A full reading of the folders that were read by names reports nothing more, but of files with
  // several names.
  void expectNothingMore() {
    for (const NamedFolder& named : cut) {
      FSChangeList more;
      if (named.names) FSEventWatcher::PrintChangedFiles(named.path, more);
      for (const FSChangedResource& record : more) {
        EXPECT_TRUE(linked.contains({record.inode, record.generation})) << record.path;
        reader.follow(Record(changes().buildMessage(record, false)));
      }
    }
  }

  // A name outside the watched folder: "out" moves entries there and "in" back.
  std::string outside(size_t number) const {
    return "../" + std::filesystem::path(folder.path()).filename().string() + "-" +
           std::to_string(number % 3);
  }

  std::string state(int round) const {
    return "round " + std::to_string(round) + ": " + done + "\nrecords: " + seen +
           "\nbatches: " + batches;
  }

  Root root{folder.path()};
  WatchTable table{root};
  std::function<void()> disturb;
  std::mt19937 random;
  Reader reader;
  std::set<File> linked;  // files that have or had several names
  std::string done, seen, batches;

 private:
  int clock_ = 0;
};

// Half of the seeds read every folder in full, the others by the names that the events gave.
bool namesOfCut(ConstFSEventStreamRef /*stream*/, size_t event, FSNames& behind) {
  if (!cut.at(event).names) return false;
  behind = cut[event].names->Sorted();
  ++readByNames;
  return true;
}

INSTANTIATE_TEST_SUITE_P(Seed, RaceTest, testing::Range(1, seeds() + 1));
INSTANTIATE_TEST_SUITE_P(OnceWrong, RaceTest, testing::Values(48));

TEST_P(RaceTest, TheReadersPictureIsTheDiskWhateverHappensDuringACallback) {
  random.seed(static_cast<unsigned>(GetParam()));
  const bool areNamesUsed = GetParam() % 2 == 0;
  if (areNamesUsed) FSEventWatcher::sNamesBehind = namesOfCut;
  readByNames = 0;
  tree().fewestForNames = 0;
  watch();
  table.WatchRoot(folder.path(), OpenFolder(folder.path()));
  int injected = 0;
  for (int round = 1; round <= 1000; ++round) {
    done = seen = batches = "";
    for (auto count = random() % 8; count > 0; --count) change();
    const unsigned often = static_cast<unsigned>(round) % 4;  // one in so many squared; 0 for none
    auto most = random() % 30;
    disturb = [&] {
      if (often == 0 || most == 0 || random() % (often * often) != 0) return;
      --most;
      ++injected;
      change();
    };
    for (int deliveries = 1; deliveries == 1 || table.HasChanges(); ++deliveries) {
      if (deliveries == 5) most = 0;
      ASSERT_LT(deliveries, 20) << state(round);
      deliver();
      if (often == 0) expectNothingMore();
      ASSERT_EQ(reader.entries, kept(snapshot())) << state(round);
    }
    ASSERT_EQ(reader.entries, expected()) << state(round);
    if (often == 0) {
      ASSERT_EQ(files(snapshot()), files(disk())) << state(round);
    }
    expectNothingLeft();
    ASSERT_FALSE(HasFailure()) << state(round);
  }
  EXPECT_GT(injected, 500);
  EXPECT_EQ(readByNames > 500, areNamesUsed);
}

}  // namespace
