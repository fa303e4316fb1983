#pragma once

#include <functional>
#include <string>

namespace marbleway::platform {

/// Captures the network requests that the host makes. Where the session starts and stops, the
/// library calls these; what is captured is the component's own affair.
class [[gnu::visibility("default")]] NetworkCapture {
 public:
  virtual ~NetworkCapture() = default;
  virtual void defaultConfiguration() = 0;
  virtual void load() = 0;
  virtual void registerProtocol() = 0;
  virtual void unregisterProtocol() = 0;
};

/// An uncaught failure of the process.
struct Failure {
  std::string description;  // what failed: a type and its reason, or a signal
  std::string callStack;    // the frames of the failing thread, a line each
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
