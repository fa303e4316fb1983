#pragma once

#include <windows.h>

#include "Marbleway/platform/crash_record.h"

namespace marbleway::platform {

/// Finds the functions that a walk needs. Call before the first failure.
void prepareWalk();

/// Notes the return addresses of the thread that stood at `registers`. The walk ends where the
/// stack is damaged. It allocates nothing, nor does the next one.
void recordFramesFrom(CrashRecord& record, const CONTEXT& registers);

/// The address to which the function returns that calls this one.
const void* callersReturnAddress();

/// Notes those of the calling thread, from `caller` on if it is among them.
void recordFramesHere(CrashRecord& record, const void* caller);

}  // namespace marbleway::platform
