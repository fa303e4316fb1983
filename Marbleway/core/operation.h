#pragma once

#include <utility>

#include "Marbleway/Host.h"
#include "Marbleway/core/diagnostics.h"
#include "Marbleway/core/guards.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/busy_budget.h"
#include "Marbleway/platform/cancellation.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/fork.h"

namespace marbleway {

/// Whether the calling thread was given an alternate stack, or has its own.
inline constinit thread_local bool isThreadWatched = false;

/// Runs the body of an operation of `Marbleway`. An exception that leaves it (no memory, a host's
/// service that throws) ends the operation and nothing else. A cancellation of the thread takes
/// effect after the operation, from which no unwinding may lead. In an unusable child of a fork it
/// does nothing. Diagnostics name the operation and `key`, the name of what it was called for.
template <class Body>
void operation(const Text& key, Body&& body, const char* name = __builtin_FUNCTION()) noexcept {
  if (platform::isUnusableChild()) return;
  const platform::CancellationDeferred deferred;
  const diagnostics::Call call(name, key);
  if (isPerformanceMonitoringEnabled && !isThreadWatched) watchThread();
  const BusyBudget budget;
  catchAll(std::forward<Body>(body));
}

/// The same for an operation that is not given the name of anything.
template <class Body>
void operation(Body&& body, const char* name = __builtin_FUNCTION()) noexcept {
  operation(nullptr, std::forward<Body>(body), name);
}

/// The same for an operation that `guard` admits. Where neither the console nor diagnostics would
/// show a refusal, a refused call ends here, so that it costs next to nothing.
template <class Body>
void operation(const Guard& guard, const Text& key, Body&& body,
               const char* name = __builtin_FUNCTION()) noexcept {
  if (!isLoggingEnabled && !diagnostics::areOn() && !isMet(guard)) return;
  operation(key, std::forward<Body>(body), name);
}

}  // namespace marbleway
