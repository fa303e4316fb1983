#pragma once

#include "tests/support/failing_vfs.h"

namespace marbleway::tests {

/// The failure of allocations on the calling thread, whoever makes them: `malloc` itself fails.
/// Only in a program with failing_memory.cpp.
extern constinit thread_local NthFailure memoryFailure;

}  // namespace marbleway::tests
