// The watcher and the table of watches together, on a tree that changes while a callback runs:
// before each folder that the callback opens, something else may happen. Everything is stepped by
// hand, so that a seed gives the same run again.

#include <fcntl.h>

#include <cstdarg>
#include <functional>
#include <random>
#include <set>

#include "StreamExtension.h"
#include "WatchTable.h"
#include "watcher_test.h"

namespace {

std::function<void()> beforeOpening;  // a folder
std::vector<NamedFolder> cut;         // the batch that is being delivered
int readByNames = 0;

// Environment variable RACE_SEEDS: how many seeds to try.
int seeds() {
  const char* wanted = std::getenv("RACE_SEEDS");
  return wanted == nullptr ? 6 : std::stoi(wanted);
}

class RaceTest : public WatcherTest, public testing::WithParamInterface<int> {
 protected:
  using Entries = Reader::Entries;

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
    if (verb == "ln") {
      const FSResourcePtr file = FSTree::GetResource(folder / name);
      linked.emplace(file->inode, file->generation);
    }
  }

  // What is there now. A write through another name of a file is not reported for this one, so of
  // files that have or had several, the second is the reader's.
  Entries disk() const {
    Entries found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path())) {
      const FSResourcePtr now = FSTree::GetResource(entry.path());
      const auto known = reader.entries.find(now->path);
      const bool isLinked = linked.contains({now->inode, now->generation});
      const bool isFile = known != reader.entries.end() && known->second != Reader::kFolder;
      found[now->path] = isLinked && isFile ? known->second : Reader::kept(*now);
    }
    return found;
  }

  // What the snapshot says that the reader has.
  Entries snapshot() const {
    Entries found;
    for (const auto& [key, ignored] : tree().snapshot) {
      for (const FSResourcePtr& entry : tree().GetSavedResourceList2(key).items) {
        const bool isNew = found.emplace(entry->path, Reader::kept(*entry)).second;
        if (!isNew) found["twice: " + entry->path] = 0;
      }
    }
    return found;
  }

  // What is known of which file each name is: of every entry of the snapshot, and on the disk.
  using Files = std::map<std::string, std::pair<uint64_t, uint64_t>>;
  std::pair<Files, Files> files() const {
    std::pair<Files, Files> found;
    for (const auto& [key, ignored] : tree().snapshot) {
      for (const FSResourcePtr& entry : tree().GetSavedResourceList2(key).items) {
        found.first[entry->path] = {entry->inode, entry->generation};
        if (const FSResourcePtr now = FSTree::GetResource(entry->path)) {
          found.second[entry->path] = {now->inode, now->generation};
        }
      }
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
  std::set<std::pair<uint64_t, uint64_t>> linked;  // files that have or had several names
  std::string done, seen, batches;

 private:
  int clock_ = 0;
};

// Half of the seeds read every folder in full, the others by the names that the events gave.
bool namesOfCut(ConstFSEventStreamRef /*stream*/, size_t event, FSNames& names) {
  if (!cut.at(event).names) return false;
  names = cut[event].names->Sorted();
  ++readByNames;
  return true;
}

INSTANTIATE_TEST_SUITE_P(Seed, RaceTest, testing::Range(1, seeds() + 1));
INSTANTIATE_TEST_SUITE_P(OnceWrong, RaceTest, testing::Values(48));

TEST_P(RaceTest, TheReadersPictureIsTheDiskWhateverHappensDuringACallback) {
  random.seed(static_cast<unsigned>(GetParam()));
  const bool areNamesUsed = GetParam() % 2 == 0;
  FSEventWatcher::sNamesBehind = areNamesUsed ? namesOfCut : namesBehind;
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
      ASSERT_EQ(reader.entries, snapshot()) << state(round);
    }
    ASSERT_EQ(reader.entries, disk()) << state(round);
    if (often == 0) {
      const auto [saved, current] = files();
      ASSERT_EQ(saved, current) << state(round);
    }
    expectNothingLeft();
    ASSERT_FALSE(HasFailure()) << state(round);
  }
  EXPECT_GT(injected, 500);
  EXPECT_EQ(readByNames > 500, areNamesUsed);
}

}  // namespace

extern "C" {
int __real_openat(int folder, const char* path, int flags, ...);

int __wrap_openat(int folder, const char* path, int flags, ...) {
  if (beforeOpening && (flags & O_DIRECTORY) != 0) beforeOpening();
  return __real_openat(folder, path, flags);
}
}
