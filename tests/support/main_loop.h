#pragma once

#include <chrono>
#include <future>
#include <memory>

#include "Marbleway/platform/main_loop.h"

namespace marbleway::platform {

inline bool comes(std::promise<void>& promise) {
  return promise.get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready;
}

/// True once everything posted to `loop` before has run.
inline bool runsPosted(MainLoop& loop) {
  const auto reached = std::make_shared<std::promise<void>>();
  loop.post([reached] { reached->set_value(); });
  return comes(*reached);
}

/// True once a timer of that period has fired `times` times.
inline bool fires(MainLoop& loop, int times, std::chrono::nanoseconds period = {}) {
  const auto reached = std::make_shared<std::promise<void>>();
  const auto timer = loop.repeat(period, [reached, times, count = 0]() mutable {
    if (++count == times) reached->set_value();
  });
  const bool isEnough = comes(*reached);
  timer->invalidate();
  return isEnough;
}

}  // namespace marbleway::platform
