#include "Marbleway/core/pending.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "Marbleway/Host.h"
#include "Marbleway/platform/guarded.h"

namespace marbleway {
namespace {

struct Count {
  std::mutex lock;
  std::condition_variable isZero;
  int value = 0;
};

Count& count() {
  static NoDestructor<Count> counting;
  return counting.value;
}

}  // namespace

Pending::Pending() {
  const std::scoped_lock lock(count().lock);
  ++count().value;
}

Pending::~Pending() {
  const std::scoped_lock lock(count().lock);
  if (--count().value == 0) count().isZero.notify_all();
}

void Pending::settle() noexcept { count(); }

void Pending::forget() noexcept { std::construct_at(&count()); }

bool waitUntilIdle(std::chrono::milliseconds atMost) noexcept {
  constexpr std::chrono::milliseconds kMax = std::chrono::hours(24 * 365);
  std::unique_lock lock(count().lock);
  return count().isZero.wait_for(lock, std::clamp(atMost, std::chrono::milliseconds(0), kMax),
                                 [] { return count().value == 0; });
}

}  // namespace marbleway
