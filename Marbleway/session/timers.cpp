#include "Marbleway/session/timers.h"

#include <chrono>

#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/upload/batch.h"

namespace marbleway {
namespace {

using std::chrono::nanoseconds;

// A timer with a longer period never fires: nanoseconds are counted up to 292 years.
constexpr float kMaxSeconds = 9e9F;

// The period where the given one is 0, negative or not a number.
constexpr nanoseconds kDefaultPeriod = std::chrono::milliseconds(100);

nanoseconds periodOf(float seconds) {
  if (!(seconds > 0)) return kDefaultPeriod;
  if (seconds >= kMaxSeconds) return nanoseconds::max();
  return std::chrono::duration_cast<nanoseconds>(std::chrono::duration<double>(seconds));
}

void startTimer(TimerHandle& task, float seconds, void (*work)()) {
  task.store(platform::current()->mainLoop->repeat(periodOf(seconds), [work] { catchAll(work); }));
}

// Idleness is measured by the wall clock, from the text of the last activity. A text that cannot be
// read ends no session.
void checkExpiry() {
  const auto lastActive = timeOf(SessionTime.load().value_or(""));
  if (!lastActive) return;
  const std::chrono::duration<double> idle = platform::current()->clock->now() - *lastActive;
  if (SessionTimeout > static_cast<float>(idle.count())) return;
  catchAll([] { console::message("Session Expired"); });
  Marbleway::stopSession();
}

}  // namespace

void setDispatchFrequency() { startTimer(TimerTask, DispatchTime, batchData); }
void setSessionTimeout() { startTimer(SessionTask, SessionTimeout, checkExpiry); }

void invalidateTimers() {
  for (TimerHandle* task : {&TimerTask, &SessionTask, &CPUTask, &MemoryTask, &BatteryTask}) {
    const auto timer = task->exchange(nullptr);
    if (timer) catchAll([&] { timer->invalidate(); });
  }
}

}  // namespace marbleway
