#include "desktop/timer.h"

#include <ctime>
#include <utility>

namespace marbleway::desktop {

Timer::Timer(sd_event* event, std::function<void()> task) : event_(event), task_(std::move(task)) {}

void Timer::start(std::chrono::milliseconds delay) {
  const auto microseconds = std::chrono::microseconds(delay).count();
  sd_event_source* source = nullptr;
  sd_event_add_time_relative(event_, &source, CLOCK_MONOTONIC,
                             static_cast<std::uint64_t>(microseconds), 0, fire, this);
  source_.reset(source);
}

int Timer::fire(sd_event_source* /*source*/, std::uint64_t /*time*/, void* timer) {
  auto& self = *static_cast<Timer*>(timer);
  self.stop();
  catchAll(self.task_);
  return 0;
}

}  // namespace marbleway::desktop
