#pragma once

#include <memory>

namespace marbleway {

/// Counts what `waitUntilIdle` waits for: requests without an answer, answers not yet applied.
class Pending {
 public:
  /// Counts one more until the last copy of what is returned is gone. Thread: any.
  static std::shared_ptr<const Pending> begin() { return std::make_shared<const Pending>(); }

  Pending();
  Pending(const Pending&) = delete;
  Pending& operator=(const Pending&) = delete;
  ~Pending();

  /// Called in the child of a fork, where nothing goes on of what the parent began.
  static void forget() noexcept;
  /// Called in front of a fork, so that the child does not find the count half made.
  static void settle() noexcept;
};

}  // namespace marbleway
