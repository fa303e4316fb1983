#pragma once

namespace marbleway::platform {

/// Installs the handlers of failures: the filter of exceptions that nothing catches,
/// std::terminate, SIGABRT, and the run-time's handlers of invalid parameters and pure virtual
/// calls. Each calls what stood in its place before.
void captureFailures();

/// Restores what stood there, where no other has been installed since.
void releaseFailures();

}  // namespace marbleway::platform
