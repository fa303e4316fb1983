#pragma once

#include <mutex>

namespace marbleway::platform {

/// A mutex with a constant initializer, free until it is locked.
using SystemMutex = std::mutex;

}  // namespace marbleway::platform
