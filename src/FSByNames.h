// Decides when a folder of which only some names have been examined is read in full. Reading such
// folders takes about one hundredth of a processor at most, however large and busy they are.
//
// Owned by FSTree; main thread only. Times are arguments.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

class FSByNames {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  struct Use {
    Time first, last;      // when names of it were examined, since it was read in full
    uint32_t entries = 0;  // of the whole folder
  };
  using Uses = std::map<std::string, Use, std::less<>>;  // by folder

  // Names of the folder have been examined.
  void Note(const std::string& folder, uint32_t entries, Time now) {
    const auto [at, isFirst] = uses_.try_emplace(folder, Use{now, now, entries});
    at->second.last = now;
    at->second.entries = entries;
  }

  // The folder has been read in full, or is gone.
  void Remove(const std::string& folder) { uses_.erase(folder); }
  void Clear() { uses_.clear(); }

  // When the next folder is due, the pause after the one before included; nothing when there is
  // none.
  std::optional<Time> Next() const {
    std::optional<Time> next;
    for (const auto& [folder, use] : uses_) next = std::min(next.value_or(Time::max()), Due(use));
    return next ? std::optional(std::max(*next, pause_)) : std::nullopt;
  }

  // A folder that is due at this time; nothing when none is. Until it is removed, it has another
  // turn later.
  std::optional<std::string> Take(Time now) {
    if (now < pause_) return std::nullopt;
    for (auto& [folder, use] : uses_) {
      if (now < Due(use)) continue;
      use.first = use.last = now;
      pause_ = now + use.entries * kPausePerEntry;
      return folder;
    }
    return std::nullopt;
  }

  // For FSTree, which moves and removes folders.
  Uses& uses() { return uses_; }

 private:
  static constexpr std::chrono::seconds kRest{20};
  static constexpr std::chrono::seconds kAtTheLatest{60};
  static constexpr std::chrono::microseconds kPausePerEntry{250};  // of which some 2.5 to read it

  static Time Due(const Use& use) { return std::min(use.last + kRest, use.first + kAtTheLatest); }

  Uses uses_;
  Time pause_{};
};
