#include "platform/fork.h"

#include <pthread.h>

#include <atomic>

#include "platform/guarded.h"

namespace marbleway::platform {
namespace {

constinit std::atomic<void (*)()> hook{nullptr};

void prepare() { guardedLock.lock(); }

void resumeParent() { guardedLock.unlock(); }

void resumeChild() {
  guardedLock.unlock();
  abandonOwnServices();
  if (const auto inChild = hook.load()) inChild();
}

}  // namespace

void watchForks(void (*inChild)()) {
  void (*none)() = nullptr;
  if (!hook.compare_exchange_strong(none, inChild)) return;
  if (pthread_atfork(prepare, resumeParent, resumeChild) != 0) hook = nullptr;  // try again later
}

}  // namespace marbleway::platform
