#pragma once

#include <chrono>

#include "export.h"

namespace marbleway::platform {

/// The wall clock, which stamps rows and measures a session's idleness. It may be set back.
/// Thread: any.
class MARBLEWAY_EXPORT Clock {
 public:
  virtual ~Clock() = default;
  /// The time.
  virtual std::chrono::system_clock::time_point now() = 0;
};

}  // namespace marbleway::platform
