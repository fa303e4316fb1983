#pragma once

#include <chrono>
#include <functional>

#include "desktop/handles.h"

namespace marbleway::desktop {

/// Runs its task once, some time after `start`. Thread: the bus thread.
class Timer {
 public:
  Timer(sd_event* event, std::function<void()> task);
  /// Starts it anew.
  void start(std::chrono::milliseconds delay);
  void stop() { source_.reset(); }
  bool isRunning() const { return source_ != nullptr; }

 private:
  static int fire(sd_event_source* source, std::uint64_t time, void* timer);

  sd_event* event_;
  std::function<void()> task_;
  Source source_;
};

}  // namespace marbleway::desktop
