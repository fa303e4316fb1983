#include "tests/support/failing_memory.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <new>

namespace marbleway::tests {

constinit thread_local NthFailure newFailure, sqliteFailure;

namespace {

sqlite3_mem_methods usualMemory;

void* sqliteMalloc(int size) {
  return sqliteFailure.strikes() ? nullptr : usualMemory.xMalloc(size);
}
void* sqliteRealloc(void* block, int size) {
  return sqliteFailure.strikes() ? nullptr : usualMemory.xRealloc(block, size);
}

}  // namespace
}  // namespace marbleway::tests

// They replace a sanitizer's, which alone can tell that a block is freed in another way than it was
// made: the tests that need no failures are therefore in another program.
void* operator new(std::size_t size) {
  void* block = marbleway::tests::newFailure.strikes() ? nullptr : std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t /*size*/) noexcept { std::free(block); }

int main(int argc, char** argv) {
  using namespace marbleway::tests;
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &usualMemory);
  sqlite3_mem_methods memory = usualMemory;
  memory.xMalloc = sqliteMalloc;
  memory.xRealloc = sqliteRealloc;
  sqlite3_config(SQLITE_CONFIG_MALLOC, &memory);
  ::testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
