#pragma once

#include <functional>
#include <string>

namespace marbleway::platform {

/// Captures the network requests that the host makes. Where the session starts and stops, the
/// library calls these; what is captured is the component's own affair.
class [[gnu::visibility("default")]] NetworkCapture {
 public:
  virtual ~NetworkCapture() = default;
  /// First of the three calls at a session's start, with network monitoring on.
  virtual void defaultConfiguration() = 0;
  /// The second.
  virtual void load() = 0;
  /// The third: requests are captured from here on.
  virtual void registerProtocol() = 0;
  /// At a session's end: requests are captured no more.
  virtual void unregisterProtocol() = 0;
};

/// An uncaught failure of the process.
struct Failure {
  std::string description;  ///< What failed: a type and its reason, or a signal.
  std::string callStack;    ///< The frames of the failing thread, a line each.
};

/// Tells of failures that end the process.
class [[gnu::visibility("default")]] CrashHook {
 public:
  virtual ~CrashHook() = default;
  /// Installs `handler`, once; later calls change nothing. It runs at most once a crash, on the
  /// failing thread or on one that stands in for it, and the process then ends as it would have.
  virtual void install(void (*handler)(const Failure& failure)) = 0;
};

}  // namespace marbleway::platform
