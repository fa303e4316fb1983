#pragma once

#include <utility>

#include "Marbleway/Host.h"
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
/// does nothing.
template <class Body>
void operation(Body&& body) noexcept {
  if (platform::isUnusableChild()) return;
  const platform::CancellationDeferred deferred;
  if (isPerformanceMonitoringEnabled && !isThreadWatched) watchThread();
  const BusyBudget budget;
  catchAll(std::forward<Body>(body));
}

}  // namespace marbleway
