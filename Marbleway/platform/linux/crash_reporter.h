#pragma once

#include "Marbleway/platform/crash_hook.h"
#include "Marbleway/platform/linux/crash.h"

namespace marbleway::platform {

/// Makes ready for the one report of this process: `handler` runs on a thread that stands by,
/// asleep, with every signal blocked. False when no thread can be started; `handler` then runs on
/// the failing thread, where signals must not lead to it. Called once.
bool startReporter(void (*handler)(const Failure& failure));

/// Reports this thread's failure, at `place`, if it is the process's first. Every failing thread
/// waits until the report is done, 2 s after the first failure at most. Does nothing in the child
/// of a fork, which has no such thread. Called while the reporting thread reports, it ends the
/// report, and the thread.
///
/// Async-signal-safe if `startReporter` was true. The lock that a failing thread holds may be the
/// one that the report needs: then the report is lost, 2 s later.
void report(const Cause& cause, const Place& place);

}  // namespace marbleway::platform
