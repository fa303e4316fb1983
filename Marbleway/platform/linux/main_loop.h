#pragma once

#include <memory>

#include "Marbleway/platform/main_loop.h"

namespace marbleway::platform {

/// A main loop on a thread of its own, which starts with the first task or timer and has every
/// signal blocked. Without a thread to be had, the task or timer is dropped in silence and the
/// next one tries again. An exception that leaves a task is dropped.
///
/// Destroying the loop stops it after the task that runs, waits for the thread unless it is the
/// calling one, and drops what was still to come. At the process's end it is left alone. In a
/// fork's child it drops what it is given.
std::shared_ptr<MainLoop> makeAsioLoop();

}  // namespace marbleway::platform
