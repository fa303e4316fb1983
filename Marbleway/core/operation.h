#pragma once

#include <utility>

#include "Marbleway/platform/catch_all.h"

namespace marbleway {

/// Runs the body of an operation of `Marbleway`. An exception that leaves it (no memory, a host's
/// service that throws) ends the operation and nothing else.
template <class Body>
void operation(Body&& body) noexcept {
  catchAll(std::forward<Body>(body));
}

}  // namespace marbleway
