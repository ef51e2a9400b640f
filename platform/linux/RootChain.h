// The way from above to the watched folder. The folder's own watch says nothing when a folder above
// it is renamed, when a link in its path leads elsewhere, or when it is missing; this class follows
// the folders above by the names that the path looks up in them, on an inotify instance of its own,
// so that a busy folder above cannot fill the queue of the tree.
//
// Owned by the stream; used by one thread at a time. Without an inotify instance, or where a folder
// above cannot be watched, the way has to be looked at from time to time instead: see NeedsPolling.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Inotify.h"

class RootChain {
 public:
  // `path` is the watched folder's, without a final "/".
  explicit RootChain(std::string path);

  // The descriptor to wait on; -1 when there is no instance.
  int number() const { return inotify_ ? inotify_->number() : -1; }

  // Looks the path up by hand and watches every folder on the way, links included, until nothing
  // changed between the look and the watches.
  void Watch();

  // Drains the queue; what happened to the names on the way.
  enum class Hit : uint8_t { none, attributes, names };
  Hit Read();

  // Whether some folder on the way could not be watched.
  bool NeedsPolling() const { return needsPolling_; }

 private:
  // One name looked up in one folder.
  struct Step {
    std::string folder;
    std::string name;
    int watch = -1;
    bool operator==(const Step& other) const {
      return folder == other.folder && name == other.name;
    }
  };

  std::vector<Step> Resolve() const;
  void WatchSteps();

  const std::string path_;
  // From the first Watch on: when the system gives one instance only, it is the tree's.
  std::optional<Inotify> inotify_;
  std::vector<Step> steps_;
  bool needsPolling_ = false;
};
