#pragma once

#include <memory>
#include <mutex>
#include <utility>

#include "Marbleway/platform/fork.h"

namespace marbleway {

/// The lock behind every `Guarded` value. Held for a copy or an assignment, never across a call.
inline constinit platform::ForkSafeMutex guardedMutex;

/// Storage of a process-wide object that is never destroyed: threads may use it at exit.
template <class T>
union NoDestructor {
  template <class... Arguments>
  constexpr explicit NoDestructor(Arguments&&... arguments)
      : value(std::forward<Arguments>(arguments)...) {}
  NoDestructor(const NoDestructor&) = delete;
  NoDestructor& operator=(const NoDestructor&) = delete;
  // Does not destroy `value`; a union's default would not compile.
  constexpr ~NoDestructor() {}  // NOLINT(modernize-use-equals-default)

  T value;
};

/// One value that any thread reads and writes whole.
template <class T>
class Guarded {
 public:
  constexpr Guarded() = default;

  T load() const {
    const std::scoped_lock lock(guardedMutex);
    return held_.value;
  }
  void store(T value) { exchange(std::move(value)); }
  /// Stores `value` and returns the former one.
  T exchange(T value) {
    const std::scoped_lock lock(guardedMutex);
    std::swap(held_.value, value);
    return value;
  }

  /// Runs `change` on the value under the lock; `change` must not call out.
  template <class Change>
  auto update(Change change) {
    const std::scoped_lock lock(guardedMutex);
    return change(held_.value);
  }

 private:
  NoDestructor<T> held_{};
};

}  // namespace marbleway
