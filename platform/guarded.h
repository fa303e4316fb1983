#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace marbleway {

/// The lock behind every `Guarded` value. Held for a copy or an assignment, never across a call.
/// One for all, so that a fork can hold it still (see platform/fork.h).
inline constinit std::mutex guardedLock;

/// Room for a process-wide object that is never torn down: threads may touch it at exit.
template <class T>
union Lasting {
  template <class... Arguments>
  constexpr explicit Lasting(Arguments&&... arguments)
      : value(std::forward<Arguments>(arguments)...) {}
  Lasting(const Lasting&) = delete;
  Lasting& operator=(const Lasting&) = delete;
  // Leaves `value` alive; a union's default would not compile.
  constexpr ~Lasting() {}  // NOLINT(modernize-use-equals-default)

  T value;
};

/// One value that any thread reads and writes whole.
template <class T>
class Guarded {
 public:
  constexpr Guarded() = default;

  T load() const {
    const std::scoped_lock lock(guardedLock);
    return held_.value;
  }
  void store(T value) { exchange(std::move(value)); }
  /// Puts `value` in and hands out what was there.
  T exchange(T value) {
    const std::scoped_lock lock(guardedLock);
    std::swap(held_.value, value);
    return value;
  }

  /// Puts `value` in if what is there satisfies `condition`, which must not call out; true if so.
  template <class Condition>
  bool storeIf(Condition condition, T value) {
    const std::scoped_lock lock(guardedLock);
    if (!condition(std::as_const(held_.value))) return false;
    std::swap(held_.value, value);
    return true;
  }

 private:
  Lasting<T> held_{};
};

}  // namespace marbleway
