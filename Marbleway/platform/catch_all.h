#pragma once

#include <utility>

namespace marbleway {

/// Runs `work`; an exception that leaves it (no memory, a host's service that throws) ends it and
/// nothing else. True if none did. Every entry point of the library and every task of its threads
/// runs in it, so that no exception ends the host.
template <class Work>
bool catchAll(Work&& work) noexcept {
  try {
    std::forward<Work>(work)();
    return true;
  } catch (...) {  // what was being done is lost in silence
    return false;
  }
}

}  // namespace marbleway
