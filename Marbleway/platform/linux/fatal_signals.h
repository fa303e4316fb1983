#pragma once

namespace marbleway::platform {

/// Has the fatal signals reported before they take effect as they did so far: the handlers that
/// stood before run afterwards, or the signal ends the process. The reporter's thread stands by.
///
/// A signal from which an earlier handler recovers is reported, too. A stack overflow is reported
/// only for a thread that has an alternate stack; on another the kernel finds no room for the
/// handler and ends the process. The threads of the host have one only if they made it themselves,
/// or if they called `CrashHook::install`.
void reportFatalSignals();

}  // namespace marbleway::platform
