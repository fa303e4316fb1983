#include "Marbleway/platform/fork.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <utility>
#include <vector>

#include "Marbleway/platform/guarded.h"

namespace marbleway::platform {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kForkTimeout{2};
constexpr timespec kRetryInterval{.tv_sec = 0, .tv_nsec = 200'000};

// Threads in a section, and forks under way in steps of `kFork`: one number, so that no thread
// enters unseen. Forks run in signal handlers too, so that nothing here waits for a lock.
constexpr std::uint64_t kFork = std::uint64_t{1} << 32U;
constinit std::atomic<std::uint64_t> gate{0};
constinit thread_local int depth = 0;  // of this thread's sections

constinit std::atomic<int> generation{0};  // see `forkCount`
constinit std::atomic<bool> isUnusable{false}, isRecording{true};
constinit std::atomic<void (*)()> childReset{nullptr};

std::uint64_t threadsInside() { return gate % kFork; }

/// Waits until `isOver`, 2 s at most.
template <class Condition>
void waitUntil(Condition isOver) {
  const auto end = steady_clock::now() + kForkTimeout;
  while (!isOver() && steady_clock::now() < end) nanosleep(&kRetryInterval, nullptr);
}

void prepareFork() {
  gate += kFork;
  // A section that the forking signal handler has interrupted does not end meanwhile.
  if (depth == 0) waitUntil([] { return threadsInside() == 0; });
}

void resumeParent() { gate -= kFork; }

void resumeChild() {
  if (threadsInside() > 0) isUnusable = true;
  gate = depth > 0 ? 1 : 0;
  isRecording = false;
  ++generation;
  if (void (*const reset)() = childReset; reset != nullptr && !isUnusable) reset();
}

// From the program's start on: a thread may be in a section before the library's own start.
[[maybe_unused]] const int registered = pthread_atfork(prepareFork, resumeParent, resumeChild);

bool enter(std::uint64_t maxForks) {
  std::uint64_t now = gate;
  while (now / kFork <= maxForks) {
    if (gate.compare_exchange_weak(now, now + 1)) return true;
  }
  return false;
}

}  // namespace

void enterForkSection() noexcept {
  if (depth++ > 0) return;
  bool isInside = enter(0);
  if (!isInside) waitUntil([&] { return isInside = enter(0); });
  // Not without an end: a handler of the fork's may have crashed, and the crash is to be recorded.
  if (!isInside) enter(UINT32_MAX);
}

void leaveForkSection() noexcept {
  if (--depth == 0) --gate;
}

void ForkSafeMutex::lock() {
  enterForkSection();
  if (!isUnusable) mutex_.lock();
}

void ForkSafeMutex::unlock() {
  if (!isUnusable) mutex_.unlock();
  leaveForkSection();
}

int forkCount() noexcept { return generation; }
bool isUnusableChild() noexcept { return isUnusable; }
bool mayRecord() noexcept { return isRecording; }

bool startRecording() noexcept {
  if (!isUnusable) isRecording = true;
  return isRecording;
}

void resetInChild(void (*reset)()) noexcept { childReset = reset; }

void abandon(std::shared_ptr<const void> object) {
  static constinit Guarded<std::vector<std::shared_ptr<const void>>> abandoned;
  if (!object) return;  // otherwise it stays in reach of leak checkers
  abandoned.update([&](auto& all) { all.push_back(std::move(object)); });
}

}  // namespace marbleway::platform
