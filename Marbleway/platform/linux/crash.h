#pragma once

#include <array>
#include <csignal>
#include <cstddef>
#include <exception>

#include "Marbleway/platform/crash_hook.h"
#include "Marbleway/platform/linux/call_stack.h"

namespace marbleway::platform {

/// The signals that end a process because of a failure of its own.
inline constexpr std::array kFatalSignals{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

/// Why a thread failed: a fatal signal, or else std::terminate.
struct Cause {
  int signal = 0;                 // 0: std::terminate
  int code = 0;                   // the signal's si_code
  const void* address = nullptr;  // the signal's si_addr
  std::exception_ptr exception;   // the one that std::terminate found; null: none
};

/// Where a thread failed.
struct Place {
  const void* address = nullptr;        // the innermost frame that counts
  const void* const* caller = nullptr;  // where its caller's address may be; null: not known
};

/// What a failing thread leaves for the report.
struct Crash {
  Cause cause;
  std::array<void*, kMaxFrames> frames{};  // innermost first
  std::size_t depth = 0;                   // frames that are known
};

/// The texts of a crash: "std::runtime_error: no space left" or
/// "Signal 11 (SIGSEGV): Segmentation fault at address 0x10", and its frames, a line each.
Failure failureOf(const Crash& crash);

}  // namespace marbleway::platform
