#pragma once

#include <string>

#include "Marbleway/platform/crash_hook.h"

namespace marbleway {

/// Records an uncaught failure of a process: a row in `mrbw_v2_crashes`, sent by a later launch.
/// There is one row for a crash, however often this is called for it.
///
/// Refused before start-up, with tracking off, without a session, and with performance monitoring
/// off. Thread: the failing one, or one that waits for failures.
void uncaughtExceptionHandler(const platform::Failure& failure);

/// Records the crashes of ended processes whose rows could not be made then.
void recordEarlierCrashes();

/// Sets the session under which the failing thread records a crash: a copy of `sessionID` that is
/// read without a lock. One of more than 63 bytes is not recorded.
void setCrashSession(const std::string& identifier);

}  // namespace marbleway
