// When a batch is due: the first change since the last batch starts the latency, later ones do not
// extend it. Takes the time as an argument, so that tests need no clock.
#pragma once

#include <chrono>
#include <optional>

class Latency {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Duration = std::chrono::steady_clock::duration;

  explicit Latency(Duration latency) : latency_(latency) {}

  // Something is to be delivered, as of now. May be said again and again.
  void Want(Time now) {
    if (!due_) due_ = now + latency_;
  }

  // A batch has been cut, or there is nothing to deliver after all.
  void Reset() { due_.reset(); }

  bool IsDue(Time now) const { return due_ && now >= *due_; }
  std::optional<Time> Due() const { return due_; }

 private:
  const Duration latency_;
  std::optional<Time> due_;
};
