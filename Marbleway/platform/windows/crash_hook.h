#pragma once

#include <memory>

#include "Marbleway/platform/crash_hook.h"

namespace marbleway::platform {

/// Captures an exception of the system or of C++ that nothing catches, an abort, and the run-time's
/// invalid parameters and pure virtual calls. The failing thread writes a record; the handler runs
/// on a thread that waits from the first `install` on, and has 500 ms. What stood in these places
/// before runs afterwards and decides how the process ends.
///
/// What ends the process at once reaches no handler: a fast fail, a damaged heap, TerminateProcess.
std::shared_ptr<CrashHook> makeCrashHook();

/// Leaves the calling thread so much of its stack that an overflow of it can be recorded. A thread
/// that has more already is not changed. Never fails visibly.
void guaranteeStack() noexcept;

}  // namespace marbleway::platform
