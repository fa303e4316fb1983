#pragma once

#include "export.h"

namespace marbleway::platform {

/// Captures the network requests that the host makes. The library calls these where a session
/// starts and stops; what is captured is decided by the implementation.
class MARBLEWAY_EXPORT NetworkCapture {
 public:
  virtual ~NetworkCapture() = default;
  /// First of the three calls at a session's start, with network monitoring on.
  virtual void defaultConfiguration() = 0;
  /// The second.
  virtual void load() = 0;
  /// The third: requests are captured from here on.
  virtual void registerProtocol() = 0;
  /// At a session's end: requests are no longer captured.
  virtual void unregisterProtocol() = 0;
};

}  // namespace marbleway::platform
