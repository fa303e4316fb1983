#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "export.h"

namespace marbleway::platform {

/// A repeating timer that a main loop runs.
class MARBLEWAY_EXPORT Timer {
 public:
  virtual ~Timer() = default;
  /// No firing begins after this returns, but for one that the loop's thread is about to begin.
  /// A second call does nothing. Thread: any.
  virtual void invalidate() = 0;
};

/// The one thread on which timers fire and continuations run, one after another.
///
/// A host with a loop of its own installs one of these. Both functions are called on any thread.
class MARBLEWAY_EXPORT MainLoop {
 public:
  virtual ~MainLoop() = default;

  /// Runs `task` on the loop, after what was posted before it, and returns at once.
  virtual void post(std::function<void()> task) = 0;

  /// Runs `task` on the loop every `period` (at least `kMinPeriod`), on the steady clock,
  /// until the timer is invalidated. Missed firings are left out. Destroying
  /// the handle does not stop the timer.
  virtual std::shared_ptr<Timer> repeat(std::chrono::nanoseconds period,
                                        std::function<void()> task) = 0;
};

/// A shorter period counts as this one.
inline constexpr std::chrono::nanoseconds kMinPeriod = std::chrono::microseconds(100);

}  // namespace marbleway::platform
