#pragma once

#include <utility>

namespace marbleway {

/// Runs `work`; an exception that leaves it (no memory, a host's service that throws) ends it and
/// nothing else. Every way into the library and every task of its threads goes through here, so
/// that none leads a host to its end.
template <class Work>
void catchAll(Work&& work) noexcept {
  try {
    std::forward<Work>(work)();
  } catch (...) {  // what was being done is lost in silence
  }
}

}  // namespace marbleway
