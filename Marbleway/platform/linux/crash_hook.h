#pragma once

#include <memory>

#include "Marbleway/platform/crash_hook.h"

namespace marbleway::platform {

/// Reports an exception that nothing catches, another call of std::terminate, and the fatal
/// signals: the process's first failure, once. What stood in these places before runs afterwards.
/// The handler has 2 s; it runs on a thread that stands by from the first `install` on.
///
/// Each thread that calls `install` gets an alternate stack, so that it can report a stack
/// overflow.
std::shared_ptr<CrashHook> makeCrashHook();

}  // namespace marbleway::platform
