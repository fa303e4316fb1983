#pragma once

#include <functional>
#include <thread>

namespace marbleway::platform {

/// Starts a thread of the library's own, on which no signal handler of the host's runs. Throws
/// std::system_error when the system has no thread left.
std::thread startBackgroundThread(std::function<void()> body);

/// Leaves this code mapped from the first call on: unloading a plugin without `shutdown` would
/// unmap the code that the threads run.
void pinModule();

}  // namespace marbleway::platform
