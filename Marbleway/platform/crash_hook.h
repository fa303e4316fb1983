#pragma once

#include <string>

#include "export.h"

namespace marbleway::platform {

/// An uncaught failure of the process.
struct Failure {
  std::string description;  ///< What failed: a type and its reason, or a signal.
  std::string callStack;    ///< The frames of the failing thread, a line each.
};

/// Reports failures that end the process.
class MARBLEWAY_EXPORT CrashHook {
 public:
  virtual ~CrashHook() = default;
  /// Installs `handler`, once; later calls change nothing. It runs at most once a crash, on the
  /// failing thread or on one that stands in for it, and the process then ends as it would have.
  virtual void install(void (*handler)(const Failure& failure)) = 0;
};

}  // namespace marbleway::platform
