#pragma once

#include <memory>

#include "Marbleway/platform/crash_hook.h"

namespace marbleway::platform {

/// Captures an exception that nothing catches, another call of std::terminate, and the fatal
/// signals. The failing thread writes a record; the handler runs on a thread that waits from the
/// first `install` on, and has 500 ms. What stood in these places before runs afterwards.
///
/// Each thread that calls `install` gets an alternate stack.
std::shared_ptr<CrashHook> makeCrashHook();

}  // namespace marbleway::platform
