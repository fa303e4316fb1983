#pragma once

#include <atomic>
#include <memory>

namespace marbleway {

/// Counts what `waitUntilIdle` waits for: requests without a response, responses not yet applied.
class Pending {
 public:
  /// Counts one more until the last copy of what is returned is gone. Thread: any.
  static std::shared_ptr<const Pending> begin() { return std::make_shared<const Pending>(); }

  Pending();
  Pending(const Pending&) = delete;
  Pending& operator=(const Pending&) = delete;
  ~Pending();

  /// False once the library has been shut down, or in a fork's child: what was begun before then
  /// has no effect any more.
  bool isCurrent() const;

  /// From now on none of what has begun counts. Thread: any.
  static void reset();

 private:
  using Count = std::atomic<int>;
  static std::shared_ptr<Count> current();

  const std::shared_ptr<Count> count_ = current();
};

}  // namespace marbleway
