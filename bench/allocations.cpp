#include <atomic>
#include <cstdlib>
#include <new>

#include "bench/measure.h"

namespace {

constinit std::atomic<std::size_t> made{0};

}  // namespace

// Counts every allocation of this program: the other forms of new call this one.
void* operator new(std::size_t size) {
  made.fetch_add(1, std::memory_order_relaxed);
  if (void* block = std::malloc(size > 0 ? size : 1)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t /*size*/) noexcept { std::free(block); }

std::size_t marbleway::bench::allocations() { return made; }
