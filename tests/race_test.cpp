// The watcher and the table of watches together, on a tree that changes while a callback runs:
// before each folder that the callback opens, something else may happen. Everything is stepped by
// hand, so that a seed gives the same run again.

#include <fcntl.h>

#include <cstdarg>
#include <functional>
#include <map>
#include <random>

#include "WatchTable.h"
#include "watcher_test.h"

namespace {

std::function<void()> beforeOpening;

// Environment variable RACE_SEEDS: how many seeds to try.
int seeds() {
  const char* wanted = std::getenv("RACE_SEEDS");
  return wanted == nullptr ? 6 : std::stoi(wanted);
}

class RaceTest : public WatcherTest, public testing::WithParamInterface<int> {
 protected:
  using Kinds = std::map<std::string, bool>;  // whether it is a folder, by path below the root

  ~RaceTest() override {
    beforeOpening = nullptr;
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
    if (folder.tryToRun(command)) done += command + "; ";
  }

  Kinds disk() const {
    Kinds found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path())) {
      found[shortened(entry.path().string())] = entry.is_directory();
    }
    return found;
  }

  // Takes the path and all below it out of the picture.
  void drop(const std::string& path) {
    const bool isFolder = picture.contains(path) && picture[path];
    std::erase_if(picture, [&](const auto& entry) {
      return entry.first == path || (isFolder && entry.first.starts_with(path + "/"));
    });
  }

  void follow(const std::string& record) {
    const Texts words = pieces(record);
    const std::string &action = words[0], &old = words[2], &name = words.back();
    const bool isFolder = words[1] == "folder";
    if (action == "create" && picture.contains(name) && picture[name] == isFolder) return;
    Kinds below;
    if (action == "rename" && isFolder) {
      for (const auto& [path, kind] : picture) {
        if (path.starts_with(old + "/")) below[name + path.substr(old.size())] = kind;
      }
    }
    if (action == "rename") drop(old);
    if (action != "change") drop(name);
    if (action == "create" || action == "rename") picture[name] = isFolder;
    picture.merge(below);
  }

  // The picture without what has been told of folders that the reader does not know yet.
  Kinds known() const {
    Kinds found = picture;
    std::erase_if(found, [](const auto& entry) {
      const size_t slash = entry.first.rfind('/');
      return slash != std::string::npos &&
             tree().SavedList(_path + "/" + entry.first.substr(0, slash)) == nullptr;
    });
    return found;
  }

  // What the snapshot says that the reader has been told.
  Kinds told() const {
    Kinds found;
    for (const auto& [key, list] : tree().snapshot) {
      for (const FSResourcePtr& entry : list) {
        const std::string path = shortened(entry->path);
        if (!found.emplace(path, entry->isFolder).second) found["twice: " + path] = true;
      }
    }
    return found;
  }

  void deliver() {
    table.Read();
    Texts paths;
    for (const NamedFolder& named : table.Cut()) paths.push_back(named.path);
    for (const std::string& path : paths) batches += " " + shortened(path);
    batches += ";";
    table.BeginDelivery();
    for (const std::string& record : batch(paths)) {
      if (!record.starts_with("error")) follow(record);
      seen += record + "; ";
    }
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

  WatchTable table;
  std::mt19937 random;
  Kinds picture;
  std::string done, seen, batches;

 private:
  int clock_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Seed, RaceTest, testing::Range(1, seeds() + 1));
INSTANTIATE_TEST_SUITE_P(OnceWrong, RaceTest, testing::Values(48));

TEST_P(RaceTest, AReaderHasThePictureOfTheDiskWhateverHappensDuringACallback) {
  random.seed(static_cast<unsigned>(GetParam()));
  watch();
  table.WatchRoot(folder.path(), openFolder(AT_FDCWD, folder.path()));
  for (int round = 1; round <= 1000; ++round) {
    done = seen = batches = "";
    for (auto count = random() % 8; count > 0; --count) change();
    const unsigned often = static_cast<unsigned>(round) % 4;  // one in so many squared; 0 for none
    auto most = random() % 30;
    beforeOpening = [&] {
      if (often == 0 || most == 0 || random() % (often * often) != 0) return;
      --most;
      change();
    };
    for (int deliveries = 1; deliveries == 1 || table.HasChanges(); ++deliveries) {
      if (deliveries == 5) most = 0;
      ASSERT_LT(deliveries, 20) << state(round);
      deliver();
      ASSERT_EQ(known(), told()) << state(round);
    }
    ASSERT_EQ(picture, disk()) << state(round);
  }
}

}  // namespace

extern "C" {
int __real_open(const char* path, int flags, ...);

int __wrap_open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (beforeOpening && (flags & O_DIRECTORY) != 0) beforeOpening();
  return __real_open(path, flags, mode);
}
}
