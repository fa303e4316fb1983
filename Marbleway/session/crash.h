#pragma once

#include "Marbleway/platform/crash_hook.h"

namespace marbleway {

/// Records an uncaught failure of the process: a row in `mrbw_v2_crashes`, sent by a later launch.
///
/// Refused before start-up, with tracking off, without a session, and with performance monitoring
/// off. Thread: the failing one, or one that stands in for it.
void uncaughtExceptionHandler(const platform::Failure& failure);

}  // namespace marbleway
