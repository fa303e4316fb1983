#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace collector {

/// Rings when there is something new to read, and once more at the end; whoever waits for news
/// sleeps here. It carries nothing: each reader looks for itself what is new to it.
/// Thread: any.
class Notifier {
 public:
  using Time = std::chrono::steady_clock::time_point;

  void ring() {
    const std::scoped_lock lock(mutex_);
    ++rings_;
    changed_.notify_all();
  }

  /// Ends every wait, now and later.
  void end() {
    const std::scoped_lock lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  /// How often it has rung. To miss nothing: take the count, look, and wait beyond it.
  unsigned long long rings() const {
    const std::scoped_lock lock(mutex_);
    return rings_;
  }

  bool ended() const {
    const std::scoped_lock lock(mutex_);
    return ended_;
  }

  /// Returns at the first ring after `seen` of them, at `deadline` or at the end; false if no ring.
  bool waitBeyond(unsigned long long seen, Time deadline) const {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline, [&] { return ended_ || rings_ != seen; });
    return rings_ != seen;
  }

  /// Returns at `deadline` or at the end, whatever rings; false at the end.
  bool pauseUntil(Time deadline) const {
    std::unique_lock lock(mutex_);
    return !changed_.wait_until(lock, deadline, [&] { return ended_; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  unsigned long long rings_ = 0;
  bool ended_ = false;
};

}  // namespace collector
