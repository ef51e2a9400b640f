// bare_walk watch|list|one FOLDER
//
// Lists a tree depth first and looks at each entry: `watch` sets a watch on each folder too, `one`
// stays in the folder itself. Prints the folders, the entries and the CPU seconds spent, and then
// waits for the end of its standard input, so that removing the watches is not measured.

#include <sys/inotify.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "bare.h"

namespace {

struct Walk {
  int watches;  // the inotify instance, -1 without watches
  bool isDeep;
  std::string path;  // of the folder at hand
  long folders = 0;
  long entries = 0;

  void Visit(int parent, const char* name) {
    // Watch before listing, or a change could be missed.
    if (watches >= 0) {
      inotify_add_watch(watches, path.c_str(),
                        IN_CREATE | IN_DELETE | IN_MOVE | IN_MODIFY | IN_ATTRIB);
    }
    const int folder = openBare(parent, name);
    if (folder < 0) return;
    ++folders;
    std::vector<std::string> below;
    listBare(folder, [&](const char* entry, const struct stat& status) {
      ++entries;
      if (isDeep && S_ISDIR(status.st_mode)) below.emplace_back(entry);
    });
    const size_t length = path.size();
    for (const std::string& entry : below) {
      path.append("/").append(entry);
      Visit(folder, entry.c_str());
      path.resize(length);
    }
    close(folder);
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const bool isWatching = std::strcmp(argv[1], "watch") == 0;
  Walk walk{isWatching ? inotify_init1(IN_CLOEXEC) : -1, std::strcmp(argv[1], "one") != 0, argv[2]};
  walk.Visit(AT_FDCWD, argv[2]);
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  std::printf("%ld %ld %.6f\n", walk.folders, walk.entries,
              static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9);
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
}
