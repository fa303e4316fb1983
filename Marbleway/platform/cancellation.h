#pragma once

namespace marbleway::platform {

/// Puts off the cancellation of the calling thread while it lives.
class CancellationDeferred {
 public:
  CancellationDeferred();
  CancellationDeferred(const CancellationDeferred&) = delete;
  CancellationDeferred& operator=(const CancellationDeferred&) = delete;
  ~CancellationDeferred();

 private:
  int former_ = 0;  // the thread's state before
};

}  // namespace marbleway::platform
