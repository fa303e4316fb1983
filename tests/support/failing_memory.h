#pragma once

#include "tests/support/failing_vfs.h"

namespace marbleway::tests {

// The failures of allocations, each thread's own: those of `operator new`, and SQLite's. They work
// only in a program with failing_memory.cpp, which brings its `main`.
extern constinit thread_local NthFailure newFailure, sqliteFailure;

}  // namespace marbleway::tests
