#include "Marbleway/core/pending.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "Marbleway/Host.h"
#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/guarded.h"

namespace marbleway {
namespace {

constexpr std::chrono::milliseconds kRetryInterval{1};

constinit Guarded<std::shared_ptr<std::atomic<int>>> counting;  // a new one after each reset

bool isIdle() {
  const auto count = counting.load();
  return !count || *count == 0;
}

}  // namespace

std::shared_ptr<Pending::Count> Pending::current() {
  if (auto count = counting.load()) return count;
  return counting.update([made = std::make_shared<Count>(0)](auto& count) {
    if (!count) count = made;
    return count;
  });
}

Pending::Pending() { ++*count_; }

Pending::~Pending() { --*count_; }

bool Pending::isCurrent() const { return counting.load() == count_; }

void Pending::reset() { counting.store(nullptr); }

bool waitUntilIdle(std::chrono::milliseconds atMost) noexcept {
  using std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kMax = std::chrono::hours(24 * 365);
  const auto end = steady_clock::now() + std::clamp(atMost, std::chrono::milliseconds(0), kMax);
  while (!isIdle()) {
    if (platform::isUnusableChild()) return false;  // no thread is left to end what is pending
    if (steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(kRetryInterval);
  }
  return true;
}

}  // namespace marbleway
