#pragma once

#include <memory>

#include "Marbleway/platform/main_loop.h"

namespace marbleway::platform {

/// A main loop on a thread of its own, which starts with the first task or timer. If the
/// thread cannot be started, the task or timer is dropped in silence and the next one tries again.
/// An exception that leaves a task is dropped.
///
/// Destroying the loop stops it after the task that runs, waits for the thread unless it is the
/// calling one, and drops what was still to come. It is not stopped at the process's end.
/// In a fork's child it starts again, without the parent's tasks and timers.
std::shared_ptr<MainLoop> makeBackgroundLoop();

}  // namespace marbleway::platform
