#pragma once

namespace marbleway::platform {

/// A mutex with a constant initializer, free until it is locked.
class SystemMutex {
 public:
  void lock();
  void unlock();

 private:
  void* state_ = nullptr;  // an SRWLOCK
};

}  // namespace marbleway::platform
