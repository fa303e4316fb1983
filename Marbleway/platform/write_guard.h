#pragma once

#include <memory>

namespace marbleway::platform {

/// Until it is destroyed, a failing write of this thread (a closed pipe, a file grown to its limit)
/// raises no signal that would end the process. Destroyed by the thread that made it.
class WriteGuard {
 public:
  /// What is written to. For files without a size limit it costs one system call.
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
