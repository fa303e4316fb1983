#pragma once

#include <memory>

namespace marbleway::platform {

/// While it lives, a write of this thread that fails (a closed pipe, a file grown to its limit)
/// only fails: the signal that would end the process does not reach it. Destroyed by the thread
/// that made it.
class WriteGuard {
 public:
  /// What is written to. For files it costs one look at their limit while they have none.
  enum class Into { pipe, file };

  explicit WriteGuard(Into into);
  WriteGuard(const WriteGuard&) = delete;
  WriteGuard& operator=(const WriteGuard&) = delete;
  ~WriteGuard();

 private:
  struct Signals;
  std::unique_ptr<Signals> before_;  // null when no signal can come
};

}  // namespace marbleway::platform
