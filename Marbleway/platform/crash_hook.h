#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "export.h"

namespace marbleway::platform {

/// An uncaught failure of a process.
struct Failure {
  std::string description;  ///< What failed: a type and its reason, or a signal.
  std::string callStack;    ///< The frames of the failing thread, a line each.
  /// The session of the crash, if all guards admitted it then; absent: not checked, or refused.
  std::optional<std::string> sessionID{};
  /// When it happened; absent: now.
  std::optional<std::chrono::system_clock::time_point> time{};
  /// Called once the row is committed. Empty: the hook has no record of the failure.
  std::function<void()> onRecorded{};
};

/// Receives failures. One that ends this process comes at most once, on the failing thread or on
/// one that waits for failures, and the process then ends as it would have without a handler.
using FailureHandler = void (*)(const Failure& failure);

/// Reports failures that end the process. Each function but `install` does nothing by default.
class MARBLEWAY_EXPORT CrashHook {
 public:
  virtual ~CrashHook() = default;
  /// Installs `handler`, once in a process; later calls change nothing. A fork's child is another
  /// process.
  virtual void install(FailureHandler handler) = 0;

  /// Reports the failures of ended processes of which `directory` holds a record without a row, and
  /// uses that directory for the record of this process, which `install` prepares.
  ///
  /// `session` returns the session under which a crash at this moment is recorded, null if guards
  /// refuse it. The failing thread calls it: it must not lock or allocate.
  virtual void useRecords(const std::string& /*directory*/, const char* (* /*session*/)(),
                          FailureHandler /*handler*/) {}

  /// Gives the calling thread an alternate stack for signals, if it has none. Never throws.
  virtual void watchThread() noexcept {}

  /// Gives back what `install` has replaced, and joins its thread. `install` may follow again.
  virtual void uninstall() {}
};

}  // namespace marbleway::platform
