#pragma once

#include <memory>

namespace marbleway::platform {

/// While it lives, a write of this thread that fails (a closed pipe, a file grown to its limit)
/// only fails: the signal that would end the process does not reach it. Destroyed by the thread
/// that made it.
class WriteGuard {
 public:
  WriteGuard();
  WriteGuard(const WriteGuard&) = delete;
  WriteGuard& operator=(const WriteGuard&) = delete;
  ~WriteGuard();

 private:
  struct Signals;
  std::unique_ptr<Signals> before_;
};

}  // namespace marbleway::platform
