#pragma once

#include <array>
#include <csignal>

namespace marbleway::platform {

/// The signals that end a process because of a failure of its own.
inline constexpr std::array kFatalSignals{SIGSEGV, SIGBUS, SIGFPE, SIGILL,
                                          SIGTRAP, SIGSYS, SIGABRT};

/// Captures the fatal signals; the kernel then delivers them again to the former actions. If the
/// handler of a fault returns or jumps away, the capture is withdrawn and later faults are captured
/// too; an abort counts as final.
///
/// A stack overflow is captured only on a thread that has an alternate stack; on another the kernel
/// has no stack for the handler and ends the process.
void captureFatalSignals();

/// Restores the former actions, where no other has been installed since.
void releaseFatalSignals();

}  // namespace marbleway::platform
