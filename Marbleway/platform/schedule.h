#pragma once

#include <algorithm>
#include <chrono>

#include "Marbleway/platform/main_loop.h"

namespace marbleway::platform {

/// What the main loops share: when a timer fires next.
using SteadyTime = std::chrono::steady_clock::time_point;

/// The time of a firing that lies beyond what the clock can count.
inline constexpr SteadyTime kNever = SteadyTime::max();

/// The next firing after `now` of a timer that is, or first was, due at `due`. Firings that were
/// missed are left out; later ones are whole periods after `due`.
inline SteadyTime nextFiring(SteadyTime due, std::chrono::nanoseconds period, SteadyTime now) {
  period = std::max(period, kMinPeriod);
  const SteadyTime last = due + (now - due) / period * period;
  return last > kNever - period ? kNever : last + period;
}

}  // namespace marbleway::platform
