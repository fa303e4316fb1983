#include "Marbleway/session/timers.h"

#include <chrono>

#include "Marbleway/session/session.h"
#include "Marbleway/startup/console.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/upload/batch.h"
#include "platform/platform.h"
#include "platform/quietly.h"

namespace marbleway {
namespace {

using std::chrono::nanoseconds;

// Beyond this many seconds a period is for ever: nanoseconds end at 292 years.
constexpr float kForEver = 9e9F;

// A period of 0, below, or that is no number is the shortest there is.
nanoseconds periodOf(float seconds) {
  if (!(seconds > 0)) return platform::kShortestPeriod;
  if (seconds >= kForEver) return nanoseconds::max();
  return std::chrono::duration_cast<nanoseconds>(std::chrono::duration<double>(seconds));
}

void startTimer(TimerHandle& task, float seconds, void (*work)()) {
  task.store(platform::current()->mainLoop->repeat(periodOf(seconds), [work] { quietly(work); }));
}

// Idleness runs on the wall clock, by the texts; one that cannot be read ends no session.
void checkExpiry() {
  const auto lastActive = timeOf(SessionTime.load().value_or(""));
  if (!lastActive) return;
  const std::chrono::duration<double> idle = platform::current()->clock->now() - *lastActive;
  if (SessionTimeout > static_cast<float>(idle.count())) return;
  console::message("Session Expired");
  stopSession();
}

}  // namespace

void setDispatchFrequency() { startTimer(TimerTask, DispatchTime, batchData); }
void setSessionTimeout() { startTimer(SessionTask, SessionTimeout, checkExpiry); }

void invalidateTimers() {
  for (TimerHandle* task : {&TimerTask, &SessionTask, &CPUTask, &MemoryTask, &BatteryTask}) {
    if (const auto timer = task->exchange(nullptr)) timer->invalidate();
  }
}

}  // namespace marbleway
