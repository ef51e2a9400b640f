// When to try again what has failed: a second after the failure, then after twice as long each
// time, and every minute in the end. Takes the time as an argument, so that tests need no clock.
// One thread at a time.
#pragma once

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <utility>

template <typename Key>
class Backoff {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Tries =
      std::map<Key, std::pair<Time, std::chrono::seconds>>;  // next try and time before it

  // Begins with the key; nothing changes when it is known already.
  void Add(const Key& key, Time now) {
    const auto [at, isNew] = tries_.try_emplace(key, now + kFirst, kFirst);
    if (isNew) due_.emplace(at->second.first, &at->first);
  }

  // It has succeeded, or is not to be tried again.
  void Remove(const Key& key) {
    const auto at = tries_.find(key);
    if (at == tries_.end()) return;
    due_.erase({at->second.first, &at->first});
    tries_.erase(at);
  }

  void Clear() {
    due_.clear();
    tries_.clear();
  }

  bool contains(const Key& key) const { return tries_.contains(key); }
  size_t size() const { return tries_.size(); }
  const Tries& tries() const { return tries_; }

  // When the next try is due; nothing when there is none.
  std::optional<Time> Next() const {
    if (due_.empty()) return std::nullopt;
    return due_.begin()->first;
  }

  // The key whose turn has come, if any. Unless it is removed, it has another turn later.
  std::optional<Key> Take(Time now) {
    if (due_.empty() || due_.begin()->first > now) return std::nullopt;
    const Key* const key = due_.begin()->second;
    due_.erase(due_.begin());
    auto& [next, pause] = tries_.at(*key);
    pause = std::min(2 * pause, kMost);
    next = now + pause;
    due_.emplace(next, key);
    return *key;
  }

 private:
  static constexpr std::chrono::seconds kFirst{1};
  static constexpr std::chrono::seconds kMost{60};

  Tries tries_;
  std::set<std::pair<Time, const Key*>> due_;  // the keys are those of tries_
};
