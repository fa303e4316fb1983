#pragma once

#include <algorithm>
#include <chrono>

namespace marbleway {

/// How long one call into the library may wait for stores and settings that others hold: two
/// seconds in all, however many statements it runs. The outermost object of a thread begins a call;
/// those inside it share its time.
class BusyBudget {
 public:
  static constexpr std::chrono::seconds kBusyTimeout{2};
  static constexpr std::chrono::milliseconds kRetryInterval{1};

  BusyBudget() : isOutermost_(!isRunning) {
    if (!isOutermost_) return;
    isRunning = true;
    waited = {};
  }
  BusyBudget(const BusyBudget&) = delete;
  BusyBudget& operator=(const BusyBudget&) = delete;
  ~BusyBudget() {
    if (isOutermost_) isRunning = false;
  }

  /// Sleeps for one interval by `sleep`, and counts it. False, without a sleep, once the time is
  /// used up. A sleep that ends early counts in full, so that the number of sleeps is bounded.
  template <class Sleep>
  static bool wait(Sleep sleep) {
    using Clock = std::chrono::steady_clock;
    if (waited >= kBusyTimeout) return false;
    const auto start = Clock::now();
    sleep(kRetryInterval);
    waited += std::max<Clock::duration>(Clock::now() - start, kRetryInterval);
    return true;
  }

 private:
  static inline constinit thread_local bool isRunning = false;
  static inline constinit thread_local std::chrono::steady_clock::duration waited{};

  const bool isOutermost_;
};

}  // namespace marbleway
