#pragma once

#include "export.h"

namespace marbleway::platform {

/// Captures the network requests of the host, with network monitoring on. The library calls it when
/// a session starts and stops; the implementation selects the requests and writes the rows.
class MARBLEWAY_EXPORT NetworkCapture {
 public:
  virtual ~NetworkCapture() = default;
  /// The first of three calls at a session's start.
  virtual void defaultConfiguration() = 0;
  /// The second.
  virtual void load() = 0;
  /// The third: requests are captured from here on.
  virtual void registerProtocol() = 0;
  /// At a session's end: requests are no longer captured.
  virtual void unregisterProtocol() = 0;
};

}  // namespace marbleway::platform
