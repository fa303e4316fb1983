#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>

#include "../clock.h"
#include "../manual_loop.h"

/// Services that a test controls.
namespace marbleway::platform::testing {

/// A wall clock and a main loop with virtual time; both stand still until `advance` moves them. The
/// wall clock starts at 2026-01-02 00:00:00 UTC. Thread: any, but for `advance`, which is the
/// loop's thread while it runs.
class FakeTime : public Clock {
 public:
  std::chrono::system_clock::time_point now() override {
    const std::chrono::nanoseconds wall = times_->wallAhead.load() + times_->steady.load();
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(wall));
  }

  /// The loop to install together with this clock.
  std::shared_ptr<ManualLoop> mainLoop() const { return mainLoop_; }

  /// Moves both clocks by `duration` and runs what is posted or falls due on the way, in order,
  /// each firing at the time at which it is due.
  void advance(std::chrono::nanoseconds duration) {
    const auto end = times_->steady.load() + duration;
    for (auto due = mainLoop_->nextDue(); due; due = mainLoop_->nextDue()) {
      if (due->time_since_epoch() > end) break;
      times_->steady = std::max(times_->steady.load(), due->time_since_epoch());
      mainLoop_->runDue();
    }
    times_->steady = end;
  }

  /// Sets the wall clock only; timers do not change.
  void setWallClock(std::chrono::system_clock::time_point now) {
    times_->wallAhead = now.time_since_epoch() - times_->steady.load();
  }

 private:
  struct Times {
    std::atomic<std::chrono::nanoseconds> steady{std::chrono::hours(1)};
    std::atomic<std::chrono::nanoseconds> wallAhead{
        std::chrono::sys_days(std::chrono::year(2026) / 1 / 2).time_since_epoch() -
        std::chrono::hours(1)};
  };

  std::shared_ptr<Times> times_ = std::make_shared<Times>();  // the loop may outlive this
  std::shared_ptr<ManualLoop> mainLoop_ = std::make_shared<ManualLoop>(
      [times = times_] { return ManualLoop::Time(times->steady.load()); });
};

}  // namespace marbleway::platform::testing
