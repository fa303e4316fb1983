#pragma once

namespace marbleway::platform {

/// Defers the cancellation of the calling thread until it is destroyed.
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
