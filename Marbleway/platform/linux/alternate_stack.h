#pragma once

#include <sys/mman.h>

#include <csignal>
#include <cstddef>
#include <memory>

namespace marbleway::platform {

/// A stack on which this thread's signal handlers run, also when its own is used up; the thread's
/// own choice if it has made one. To be destroyed by the same thread.
class AlternateStack {
 public:
  AlternateStack() {
    stack_t present{};
    if (sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0) return;
    // Not from the heap, of which a thread at rest needs no part.
    void* memory = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return;
    memory_.reset(memory);
    const stack_t stack{.ss_sp = memory, .ss_flags = 0, .ss_size = kSize};
    if (sigaltstack(&stack, nullptr) != 0) memory_.reset();
  }
  AlternateStack(const AlternateStack&) = delete;
  AlternateStack& operator=(const AlternateStack&) = delete;
  ~AlternateStack() {
    stack_t present{};
    if (memory_ == nullptr || sigaltstack(nullptr, &present) != 0) return;
    if (present.ss_sp != memory_.get()) return;  // the thread has chosen another one since
    const stack_t none{.ss_sp = nullptr, .ss_flags = SS_DISABLE, .ss_size = 0};
    // While a handler runs on it, it has to stay.
    if (sigaltstack(&none, nullptr) != 0) (void)memory_.release();
  }

 private:
  static constexpr std::size_t kSize = 64UL * 1024;  // bytes

  struct Unmap {
    void operator()(void* memory) const { munmap(memory, kSize); }
  };

  std::unique_ptr<void, Unmap> memory_;
};

}  // namespace marbleway::platform
