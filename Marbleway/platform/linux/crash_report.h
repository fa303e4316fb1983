#pragma once

#include <string>

#include "Marbleway/platform/crash_hook.h"

namespace marbleway::platform {

/// Why a thread failed: a fatal signal, or else std::terminate.
struct Cause {
  int signal = 0;                 // 0: std::terminate
  int code = 0;                   // the signal's si_code
  const void* address = nullptr;  // the signal's si_addr
};

/// Where a thread failed.
struct Place {
  const void* address = nullptr;        // the innermost frame that counts
  const void* const* caller = nullptr;  // where its caller's address may be; null: not known
};

/// Whether the process ends by a failure, or a host's handler comes next, which may recover.
enum class Outcome { fatal, open };

/// Where records are written, and under which session (see CrashHook::useRecords).
void useRecords(const std::string& directory, const char* (*session)(), FailureHandler handler);

/// Prepares the one report of this process: its file, and a thread on which `handler` runs. Without
/// the thread the record alone is left. False when this process is prepared already.
bool startReporter(FailureHandler handler);
/// Joins the thread and closes the file.
void stopReporter();
/// Whether failures of this process are captured: not in a fork's child before its own start.
bool isReporting();

/// Writes the record of this thread's failure, and if it is fatal waits until the row is made,
/// 500 ms at most. Of failures in several threads the first fatal one is reported; the others wait
/// for it. Called on the reporting thread, it ends the report, and the thread.
///
/// Async-signal-safe. The failing thread makes system calls only: it takes no lock and allocates
/// nothing. A lock that it holds may be one that the row needs; then the record is left.
void report(const Cause& cause, const Place& place, Outcome outcome);

/// The host has recovered from this thread's failure: its record is emptied.
void withdrawReport();

}  // namespace marbleway::platform
