#include "RootChain.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <deque>
#include <string_view>
#include <utility>

namespace {

constexpr int kMostLinks = 40;  // the kernel's own limit
constexpr int kMostTries = 8;   // then whatever still changes will send another event

// Puts the names of a path before those still to be looked up.
void pushFront(std::deque<std::string>& names, std::string_view path) {
  std::deque<std::string> first;
  while (!path.empty()) {
    const size_t end = std::min(path.find('/'), path.size());
    if (end > 0 && path.substr(0, end) != ".") first.emplace_back(path.substr(0, end));
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  names.insert(names.begin(), first.begin(), first.end());
}

std::string join(const std::string& folder, const std::string& name) {
  return folder.ends_with('/') ? folder + name : folder + "/" + name;
}

// The folder above a path that holds no links.
std::string above(const std::string& folder) {
  const size_t slash = folder.rfind('/');
  if (folder == "." || folder.ends_with("..")) return join(folder, "..");
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : folder.substr(0, slash);
}

}  // namespace

RootChain::RootChain(std::string path) : path_(std::move(path)) {}

std::vector<RootChain::Step> RootChain::Resolve() const {
  std::vector<Step> steps;
  std::deque<std::string> names;
  pushFront(names, path_);
  std::string folder = path_.starts_with('/') ? "/" : ".";
  int links = 0;
  while (!names.empty()) {
    const std::string name = std::move(names.front());
    names.pop_front();
    if (name == "..") {
      folder = above(folder);
      continue;
    }
    steps.push_back({folder, name});
    const std::string path = join(folder, name);
    std::array<char, PATH_MAX> target;
    const ssize_t size = readlink(path.c_str(), target.data(), target.size());
    if (size > 0 && ++links <= kMostLinks) {
      const std::string_view text(target.data(), static_cast<size_t>(size));
      if (text.starts_with('/')) folder = "/";
      pushFront(names, text);
    } else if (size > 0 || errno != EINVAL) {
      break;  // a ring of links, or nothing of this name
    } else {
      folder = path;
    }
  }
  return steps;
}

void RootChain::Watch() {
  for (int i = 0; i < kMostTries; ++i) {
    std::vector<Step> steps = Resolve();
    if (needsPolling_) steps.push_back({path_, ""});  // it says itself that it moves
    if (i > 0 && steps == steps_) return;
    const std::vector<Step> before = std::exchange(steps_, std::move(steps));
    WatchSteps();
    for (const Step& old : before) {
      const bool isKept = std::any_of(steps_.begin(), steps_.end(),
                                      [&](const Step& step) { return step.watch == old.watch; });
      if (!isKept && old.watch >= 0) inotify_->Remove(old.watch);
    }
  }
}

void RootChain::WatchSteps() {
  if (!inotify_) inotify_.emplace(Inotify::Interest::names, false);
  needsPolling_ = !inotify_->isOpen();
  for (Step& step : steps_) {
    const OpenFolder folder(step.folder, true);
    step.watch = folder.isOpen() ? inotify_->Add(folder) : -1;
    if (step.watch < 0 && folder.failure() != Failure::absent) needsPolling_ = true;
  }
}

RootChain::Hit RootChain::Read() {
  std::string events;
  if (!inotify_ || !inotify_->isOpen() || !inotify_->Read(events)) return Hit::none;
  Hit hit = Hit::none;
  for (std::string_view rest = events; const std::optional<Event> event = takeEvent(rest);) {
    const bool isOnWay = std::any_of(steps_.begin(), steps_.end(), [&](const Step& step) {
      return step.watch == event->watch && (event->name.empty() || event->name == step.name);
    });
    if (!isOnWay && event->kind != Event::Kind::overflow) continue;
    const bool isAttributes = event->kind == Event::Kind::attributes;
    hit = std::max(hit, isAttributes ? Hit::attributes : Hit::names);
  }
  return hit;
}
