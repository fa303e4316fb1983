#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "export.h"
#include "main_loop.h"

namespace marbleway::platform {

/// A main loop without a thread: it runs when the host pumps it, on the thread that pumps.
///
/// Posting, timers and their invalidation work from any thread, from within a task too. Pump from
/// one thread at a time. An exception that leaves a task is dropped.
class MARBLEWAY_EXPORT ManualLoop : public MainLoop {
 public:
  /// A time at which a timer fires.
  using Time = std::chrono::steady_clock::time_point;

  /// `now` returns the time for timers; another clock than the steady one makes it virtual.
  explicit ManualLoop(std::function<Time()> now = std::chrono::steady_clock::now);

  void post(std::function<void()> task) override;
  std::shared_ptr<Timer> repeat(std::chrono::nanoseconds period,
                                std::function<void()> task) override;

  /// Runs every posted task, also those that these post, and each timer due now, in the order in
  /// which they were posted or due. Returns the number of tasks that ran.
  std::size_t runDue();

  /// The time of the next task or firing: now, if a task is posted; absent if there is none.
  std::optional<Time> nextDue();

  /// Runs what is due and waits for more until `atMost` of real time has passed. True if a task
  /// ran.
  bool pumpFor(std::chrono::milliseconds atMost);

  /// Runs what is due and waits for more until `stop` has been called, which may be before.
  void run();
  /// Ends `run` after the task that runs. Thread: any.
  void stop();

 private:
  struct Queue;  // shared with the handles, which may outlive the loop
  struct Handle;
  struct Repeating;

  bool runOne(Time limit);
  void fire(std::uint64_t id, const Repeating& timer);
  void waitForWork(Time end);

  std::function<Time()> now_;
  std::shared_ptr<Queue> queue_;
};

}  // namespace marbleway::platform
