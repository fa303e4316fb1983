#pragma once

namespace marbleway::platform {

/// Gives the calling thread an alternate stack for signals, with a guard page below, if it has
/// none. It is unmapped when the thread ends, unless the thread has chosen another one since. A
/// failure is silent.
void giveAlternateStack() noexcept;

/// Takes the calling thread's stack back. The stacks of other threads stay mapped; nothing of the
/// library runs any more when those threads end.
void releaseAlternateStacks() noexcept;

}  // namespace marbleway::platform
