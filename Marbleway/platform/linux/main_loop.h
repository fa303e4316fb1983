#pragma once

#include <memory>

#include "Marbleway/platform/main_loop.h"

namespace marbleway::platform {

/// A main loop on a thread of its own, which starts with the first task or timer. Without a thread
/// to be had, the task or timer is dropped in silence and the next one tries again. An exception
/// that leaves a task is dropped.
///
/// Destroying the loop stops it after the task that runs, waits for the thread unless it is the
/// calling one, and drops what was still to come. At the process's end it is left alone. In a
/// fork's child it starts anew, without the parent's tasks and timers.
std::shared_ptr<MainLoop> makeBackgroundLoop();

}  // namespace marbleway::platform
