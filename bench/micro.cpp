// What single operations cost, in the CPU time of the thread. The names are read by bench/whole.py:
// "SUBJECT/CASE/N", and "unit/..." for what a subject is measured against.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "FSEventWatcher.h"
#include "bare.h"
#include "support.h"

namespace {

using benchmark::State;

FSTree& tree() { return *FSEventWatcher::sTree; }
FSChangeEvents& changes() { return *FSEventWatcher::sChanges; }

std::string numbered(const char* name, int64_t number) {
  const std::string digits = std::to_string(number);
  return name + std::string(8 - std::min<size_t>(8, digits.size()), '0') + digits;
}

FileStatus statusOf(bool isFolder, uint64_t inode) {
  return {{inode, 0}, isFolder, timespec{1, 0}, timespec{1, 0}, 1};
}

// ---- The comparison of one folder, for example with its snapshot from before half of it was
// deleted.

enum Mix : int { unchanged, changed, halfDeleted, halfNew, renamed };
enum Kind : int { plain, linked };  // linked: all are names of one file

struct Folder {
  std::string path;
  FSListingPtr saved;
};

void makeFiles(int folder, Kind kind, int64_t from, int64_t to) {
  for (int64_t i = from; i < to; ++i) {
    const std::string name = numbered("entry-", i);
    if (kind == plain || i == 0) {
      mknodat(folder, name.c_str(), 0100644, 0);
    } else {
      const int made = linkat(folder, numbered("entry-", 0).c_str(), folder, name.c_str(), 0);
      benchmark::DoNotOptimize(made);
    }
  }
}

void change(int folder, Mix mix, Kind kind, int64_t count) {
  if (mix == changed) {
    const timespec times[] = {{1, 0}, {1, 0}};
    utimensat(folder, numbered("entry-", count / 2).c_str(), times, 0);
  } else if (mix == halfNew) {
    makeFiles(folder, kind, count / 2, count);
  } else if (mix == halfDeleted) {
    for (int64_t i = 0; i < count; i += 2) unlinkat(folder, numbered("entry-", i).c_str(), 0);
  } else if (mix == renamed) {
    for (int64_t i = 0; i < count; ++i) {
      renameat(folder, numbered("entry-", i).c_str(), folder, numbered("named-", i).c_str());
    }
  }
}

// A folder that has, or had, so many files, made once.
const Folder& folderOf(int64_t count, Mix mix = unchanged, Kind kind = plain) {
  static const TempFolder top;
  static std::map<std::tuple<int64_t, Mix, Kind>, Folder> made;
  const auto [at, isNew] = made.try_emplace({count, mix, kind});
  Folder& folder = at->second;
  if (!isNew) return folder;
  const std::string name =
      "n" + std::to_string(mix) + "-" + std::to_string(kind) + "-" + std::to_string(count);
  top.run("mkdir " + name);
  folder.path = top / name;
  const int handle = openBare(AT_FDCWD, folder.path.c_str());
  makeFiles(handle, kind, 0, mix == halfNew ? count / 2 : count);
  FSListingBuilder builder;
  tree().Read(folder.path, {}, builder);
  folder.saved = builder.Finish();
  change(handle, mix, kind, count);
  close(handle);
  return folder;
}

void Reconciliation(State& state, Mix mix, Kind kind) {
  const Folder& folder = folderOf(state.range(0), mix, kind);
  for (auto _ : state) {
    state.PauseTiming();
    tree().SetListing(folder.path, folder.saved);
    state.ResumeTiming();
    FSChangeList batch;
    FSEventWatcher::PrintChangedFiles(folder.path + "/", batch);
    benchmark::DoNotOptimize(batch);
  }
  tree().ClearSnapshot();
}

void list(const std::string& path) {
  const int folder = openBare(AT_FDCWD, path.c_str());
  listBare(folder, [](const char* name, const struct stat& status) {
    benchmark::DoNotOptimize(name);
    benchmark::DoNotOptimize(status.st_mtim);
  });
  close(folder);
}

void Listing(State& state, Mix mix) {
  const Folder& folder = folderOf(state.range(0), mix);
  for (auto _ : state) list(folder.path);
}

// ---- Lines.

const std::string kPath = "/home/somebody/projects/a folder/with more in it/a name.txt.";

FSChangedResource aChange() { return {"create", FSResource(statusOf(false, 1234567), kPath)}; }

void Message(State& state, bool doEncode) {
  const FSChangedResource change = aChange();
  for (auto _ : state) benchmark::DoNotOptimize(changes().buildMessage(change, doEncode));
}

void BareMessage(State& state) {
  const FSChangedResource change = aChange();
  char line[512];
  for (auto _ : state) {
    std::snprintf(
        line, sizeof line,
        R"(<file action="create" inode="%lu" modified="%lu" created="%lu" size="%lu">%s</file>)",
        change.inode, static_cast<unsigned long>(change.modified.tv_sec),
        static_cast<unsigned long>(change.created.tv_sec), change.size, kPath.c_str());
    benchmark::DoNotOptimize(line);
  }
}

void Encoding(State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(changes().encode(kPath, true));
}

void BareEncoding(State& state) {
  bool isPlain[256] = {};
  for (int c = 0; c < 256; ++c)
    isPlain[c] = std::isalnum(c) != 0 || c == '-' || c == '_' || c == '~';
  char encoded[256];
  for (auto _ : state) {
    char* at = encoded;
    for (const char c : kPath) {
      const auto byte = static_cast<unsigned char>(c);
      if (isPlain[byte]) {
        *at++ = c;
      } else {
        *at++ = '%';
        *at++ = "0123456789abcdef"[byte >> 4];
        *at++ = "0123456789abcdef"[byte & 15];
      }
    }
    benchmark::DoNotOptimize(encoded);
  }
}

// ---- The queue.

void clearQueue() {
  const MutexLock lock(changes().outputLock);
  changes().outputLines.Take();
}

void Append(State& state) {
  const FSChangedResource change = aChange();
  for (auto _ : state) changes().Append(change);
  clearQueue();
}

double processSeconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

// One cycle of the emitter: the start of its thread, 3,000 lines, and the pause, which costs
// nothing.
void Cycle(State& state) {
  const std::string line = changes().buildMessage(aChange(), true);
  for (auto _ : state) {
    for (int64_t i = 0; i < state.range(0); ++i) changes().AppendOutput(line, false);
    // Lines just queued would still be in the processor's caches.
    benchmark::DoNotOptimize(std::vector<char>(size_t{64} << 20, 'x').data());
    const double before = processSeconds();
    changes().StartThrow(3000);
    changes().StopThrow();
    state.SetIterationTime(processSeconds() - before);
    clearQueue();
  }
}

// ---- The snapshot, in trees of so many folders with ten folders and ten files in each.

std::string folderAt(int64_t number) {
  return number == 0 ? "/t" : folderAt((number - 1) / 10) + "/" + numbered("d", (number - 1) % 10);
}

void fillSnapshot(int64_t count) {
  tree().ClearSnapshot();
  uint64_t inode = 1;
  for (int64_t i = 0; i < count; ++i) {
    FSListingBuilder entries;
    for (int child = 0; child < 10 && 10 * i + 1 + child < count; ++child) {
      entries.Add(numbered("d", child), statusOf(true, ++inode));
    }
    for (int j = 0; j < 10; ++j) entries.Add(numbered("entry-", j), statusOf(false, ++inode));
    tree().SetListing(folderAt(i), entries.Finish());
  }
}

void OneEvent(State& state) {
  fillSnapshot(state.range(0));
  const Folder& folder = folderOf(20);
  tree().SetListing(folder.path, folder.saved);
  const std::string named = folder.path + "/";
  const char* const paths[] = {named.c_str()};
  const FSEventStreamEventFlags flags[] = {0};
  const FSEventStreamEventId ids[] = {1};
  for (auto _ : state) FSEventWatcher::FSEvents_Callback(nullptr, nullptr, 1, paths, flags, ids);
  tree().ClearSnapshot();
}

void BareEvent(State& state) {
  for (auto _ : state) list(folderOf(20).path);
}

void AddAndDelete(State& state) {
  fillSnapshot(state.range(0));
  const std::string added = folderAt(5) + "/new";
  for (auto _ : state) {
    tree().Put(added, statusOf(true, 1));
    tree().FinishDrafts();
    tree().Take(added);
    tree().FinishDrafts();
  }
  tree().ClearSnapshot();
}

// A real tree of 1,000 folders, for the silent scan that a rename is measured against.
std::string realTree() {
  static const TempFolder top;
  static bool isMade = false;
  if (!std::exchange(isMade, true)) {
    for (int64_t i = 0; i < 1000; ++i) {
      const std::string path = folderAt(i).substr(1);
      top.run("mkdir " + path);
      for (int j = 0; j < 10; ++j) top.run("touch " + path + "/" + numbered("entry-", j));
    }
  }
  return top / "t";
}

// The real tree's listings within a snapshot of so many other folders.
void Rename(State& state) {
  fillSnapshot(state.range(0));
  std::string path = realTree(), other = realTree() + "x";
  tree().changes = &changes();
  tree().DirSearch(path, false, false);
  for (auto _ : state) {
    tree().Rename(path, other, statusOf(true, 1));
    tree().FinishDrafts();
    std::swap(path, other);
  }
  tree().ClearSnapshot();
}

void SilentScan(State& state) {
  tree().changes = &changes();
  const std::string path = realTree();
  for (auto _ : state) tree().DirSearch(path, false, false);
  tree().ClearSnapshot();
}

}  // namespace

int main(int argc, char** argv) {
  FSEventWatcher watcher;
  benchmark::Initialize(&argc, argv);
  const std::pair<const char*, Mix> mixes[] = {{"nothing changed", unchanged},
                                               {"one changed", changed},
                                               {"half deleted", halfDeleted},
                                               {"half new", halfNew},
                                               {"all renamed", renamed}};
  for (const auto& [name, mix] : mixes) {
    for (const int64_t count : {100, 10000, 100000}) {
      const std::string title = std::string("compare, ") + name;
      const double time = count == 100000 ? 1 : 0.2;
      benchmark::RegisterBenchmark(title.c_str(), Reconciliation, mix, plain)
          ->Arg(count)
          ->MinTime(time);
      benchmark::RegisterBenchmark(("unit/" + title).c_str(), Listing, mix)
          ->Arg(count)
          ->MinTime(time);
    }
  }
  // 20,000 more names of a file, and other names for 20,000 of a file.
  for (const auto& [name, mix, count] :
       {std::tuple("half new", halfNew, 40000), std::tuple("all renamed", renamed, 20000)}) {
    for (const Kind kind : {plain, linked}) {
      const std::string title =
          std::string(kind == plain ? "unit/" : "") + "one file's names, " + name;
      benchmark::RegisterBenchmark(title.c_str(), Reconciliation, mix, kind)
          ->Arg(count)
          ->MinTime(0.2);
    }
  }
  benchmark::RegisterBenchmark("message, plain", Message, false)->MinTime(0.1);
  benchmark::RegisterBenchmark("message, encoded", Message, true)->MinTime(0.1);
  benchmark::RegisterBenchmark("unit/message", BareMessage)->MinTime(0.1);
  benchmark::RegisterBenchmark("encode 60 bytes", Encoding)->MinTime(0.1);
  benchmark::RegisterBenchmark("unit/encode", BareEncoding)->MinTime(0.1);
  benchmark::RegisterBenchmark("queue, append", Append)->Iterations(200000)->Repetitions(5);
  for (const int64_t waiting : {3000, 1000000}) {
    benchmark::RegisterBenchmark("emitter cycle", Cycle)
        ->Arg(waiting)
        ->UseManualTime()
        ->Iterations(1)
        ->Repetitions(5);
  }
  for (const int64_t count : {100, 100000}) {
    benchmark::RegisterBenchmark("event, 20 entries", OneEvent)->Arg(count)->MinTime(0.2);
    benchmark::RegisterBenchmark("add and delete", AddAndDelete)->Arg(count)->MinTime(0.2);
    benchmark::RegisterBenchmark("rename of 1,000 folders", Rename)->Arg(count)->MinTime(0.2);
  }
  benchmark::RegisterBenchmark("unit/event", BareEvent)->MinTime(0.2);
  benchmark::RegisterBenchmark("unit/silent scan", SilentScan)->MinTime(0.2);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
