#include "Marbleway/platform/linux/alternate_stack.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <mutex>
#include <optional>

#include "Marbleway/platform/fork.h"

namespace marbleway::platform {
namespace {

constexpr std::size_t kSize = 64UL * 1024;  // bytes, without the guard page

constinit ForkSafeMutex keyMutex;
constinit std::optional<pthread_key_t>
    key;  // of the mapping; a destructor of thread_local allocates

std::size_t guardSize() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

void release(void* memory) {
  void* const base = static_cast<std::byte*>(memory) + guardSize();
  stack_t present{};
  sigaltstack(nullptr, &present);
  if (present.ss_sp == base) {
    const stack_t none{.ss_sp = nullptr, .ss_flags = SS_DISABLE, .ss_size = 0};
    if (sigaltstack(&none, nullptr) != 0) return;  // a handler is running on it
  }
  munmap(memory, guardSize() + kSize);
}

std::optional<pthread_key_t> keyOfStacks() {
  const std::scoped_lock lock(keyMutex);
  pthread_key_t made = 0;
  if (!key && pthread_key_create(&made, release) == 0) key = made;
  return key;
}

}  // namespace

void giveAlternateStack() noexcept {
  stack_t present{};
  if (sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0) return;
  const auto ownKey = keyOfStacks();
  if (!ownKey) return;
  void* const memory = mmap(nullptr, guardSize() + kSize, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (memory == MAP_FAILED) return;
  mprotect(memory, guardSize(), PROT_NONE);
  void* const base = static_cast<std::byte*>(memory) + guardSize();
  const stack_t stack{.ss_sp = base, .ss_flags = 0, .ss_size = kSize};
  const bool isGiven =
      pthread_setspecific(*ownKey, memory) == 0 && sigaltstack(&stack, nullptr) == 0;
  if (isGiven) return;
  pthread_setspecific(*ownKey, nullptr);
  munmap(memory, guardSize() + kSize);
}

void releaseAlternateStacks() noexcept {
  const std::scoped_lock lock(keyMutex);
  if (!key) return;
  if (void* const memory = pthread_getspecific(*key)) release(memory);
  pthread_key_delete(*key);
  key.reset();
}

}  // namespace marbleway::platform
