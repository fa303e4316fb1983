#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "Marbleway/platform/crash_hook.h"

namespace marbleway::platform {

/// Why a thread failed: an exception's code, SIGABRT, or another code of `causeOf`.
struct Cause {
  std::int32_t code = 0;       // 0: std::terminate
  std::int32_t access = 0;     // of an access violation: 0 read, 1 write, 8 execute
  std::uint64_t address = 0;   // of the access, or else of the instruction
  const CONTEXT* registers{};  // where the thread stood; null: in a handler,
  const void* caller{};        // to whose caller this address belongs
};

/// Where records are written, and under which session (see CrashHook::useRecords).
void useRecords(const std::string& directory, const char* (*session)(), FailureHandler handler);

/// Prepares the one report of this process: its file, and a thread on which `handler` runs. Without
/// the thread the record alone is left. False when the process is prepared already.
bool startReporter(FailureHandler handler);
/// Joins the thread and closes the file.
void stopReporter();
/// Whether failures are captured.
bool isReporting();

/// Writes the record of this thread's failure, if no other thread's is final. The failing thread
/// takes no lock of the library or the heap and allocates nothing: it writes to an open file. A
/// failure while it records ends the record where it is.
void recordFailure(const Cause& cause);

/// Waits until the row of the recorded failure is made, 500 ms at most. Of failures in several
/// threads the first is reported; the others wait for it. A lock that the failing thread holds may
/// be one that the row needs; then the record is left.
void awaitRow();

/// The host has recovered from this thread's failure: its record is emptied.
void withdrawRecord();

}  // namespace marbleway::platform
