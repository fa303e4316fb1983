#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace collector {

/// Wakes whoever waits for new records, and everybody when the collector ends. It carries no data:
/// each reader finds out what is new to it. Thread: any.
class Notifier {
 public:
  using Time = std::chrono::steady_clock::time_point;

  void notify() {
    const std::scoped_lock lock(mutex_);
    ++count_;
    changed_.notify_all();
  }

  /// Ends every wait, now and later.
  void end() {
    const std::scoped_lock lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  /// The number of notifications so far. To miss none: take it, read the records, wait beyond it.
  unsigned long long count() const {
    const std::scoped_lock lock(mutex_);
    return count_;
  }

  bool ended() const {
    const std::scoped_lock lock(mutex_);
    return ended_;
  }

  /// Returns at the first notification beyond `seen` of them, at `deadline` or at the end; false
  /// without one.
  bool waitBeyond(unsigned long long seen, Time deadline) const {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline, [&] { return ended_ || count_ != seen; });
    return count_ != seen;
  }

  /// Returns at `deadline` or at the end; false at the end.
  bool pauseUntil(Time deadline) const {
    std::unique_lock lock(mutex_);
    return !changed_.wait_until(lock, deadline, [&] { return ended_; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  unsigned long long count_ = 0;
  bool ended_ = false;
};

}  // namespace collector
