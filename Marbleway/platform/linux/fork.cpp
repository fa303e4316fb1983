#include "Marbleway/platform/fork.h"

#include <pthread.h>

#include <atomic>

#include "Marbleway/platform/guarded.h"

namespace marbleway::platform {
namespace {

struct Hooks {
  void (*inChild)();
  void (*before)();
  void (*inParent)();
};
constinit std::atomic<bool> isWatching{false};
constinit Hooks hooks{};  // set before the first fork that is watched

void prepare() {
  hooks.before();
  guardedMutex.lock();
}

void resumeParent() {
  guardedMutex.unlock();
  hooks.inParent();
}

void resumeChild() {
  guardedMutex.unlock();
  abandonOwnServices();
  hooks.inChild();
}

}  // namespace

void watchForks(void (*inChild)(), void (*before)(), void (*inParent)()) {
  if (isWatching.exchange(true)) return;
  hooks = {inChild, before, inParent};
  if (pthread_atfork(prepare, resumeParent, resumeChild) != 0) isWatching = false;  // later again
}

}  // namespace marbleway::platform
