// In place of the C library's allocator: it fails as a FailingVfs of the calling thread says.

#include <cstdlib>
#include <new>

#include "tests/support/failing_vfs.h"

using marbleway::tests::fails, marbleway::tests::kMemory;

// The C library's allocator under a name of its own, or a sanitizer's, where there is one.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
[[gnu::weak]] void* __interceptor_malloc(std::size_t size);
[[gnu::weak]] void* __interceptor_calloc(std::size_t count, std::size_t size);
[[gnu::weak]] void* __interceptor_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) noexcept {
  if (fails(kMemory)) return nullptr;
  return (__interceptor_malloc != nullptr ? __interceptor_malloc : __libc_malloc)(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  if (fails(kMemory)) return nullptr;
  return (__interceptor_calloc != nullptr ? __interceptor_calloc : __libc_calloc)(count, size);
}
void* realloc(void* block, std::size_t size) noexcept {
  if (fails(kMemory)) return nullptr;
  return (__interceptor_realloc != nullptr ? __interceptor_realloc : __libc_realloc)(block, size);
}
}
// NOLINTEND(bugprone-reserved-identifier)

// A sanitizer's `operator new` does not call `malloc`.
void* operator new(std::size_t size) {
  void* block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t /*size*/) noexcept { std::free(block); }
