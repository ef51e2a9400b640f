// When a batch is due. The first change after a quiet time starts the latency, later ones do not
// extend it, and two deliveries are at least the latency apart. Takes the time as an argument, so
// that tests need no clock.
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
    if (due_) return;
    const bool isRecent = delivered_ && now - *delivered_ < latency_;
    due_ = (isRecent ? *delivered_ : now) + latency_;
  }

  // A batch has been cut now.
  void Deliver(Time now) {
    delivered_ = now;
    due_.reset();
  }

  // Nothing is to be delivered after all.
  void Forget() { due_.reset(); }

  bool IsDue(Time now) const { return due_ && now >= *due_; }
  std::optional<Time> Due() const { return due_; }

 private:
  const Duration latency_;
  std::optional<Time> due_;
  std::optional<Time> delivered_;
};
