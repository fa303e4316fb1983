#pragma once

#include <chrono>
#include <functional>
#include <optional>

namespace marbleway::tests {

/// System calls of SQLite, and allocations by whoever makes them; several make a mask.
enum Call : unsigned {
  kOpen = 1,
  kRead = 2,
  kWrite = 4,
  kSync = 8,
  kLock = 16,
  kOther = 32,
  kAnyFileCall = 63,
  kMemory = 64  // in a program with failing_memory.cpp
};

/// A failure of the `nth` of some calls (from 1; 0: of none), and of all after it if it lasts.
struct NthFailure {
  unsigned calls = 0;
  int error = 0;  // `errno` when one fails
  int nth = 0;
  bool lasts = false;
  int counted = 0;

  bool wasReached() const { return nth > 0 && counted >= nth; }
};

/// SQLite's file system: system calls that fail, a clock of its own, sleeps that take no time.
/// Nothing is forced to the disk. For the calling thread, one object at a time.
struct FailingVfs {
  FailingVfs();
  FailingVfs(const FailingVfs&) = delete;
  FailingVfs& operator=(const FailingVfs&) = delete;
  ~FailingVfs();

  NthFailure failure;
  /// What SQLite takes for the time; absent: the time.
  std::optional<std::chrono::system_clock::time_point> now;
  /// How long the sleeps would have taken.
  std::chrono::microseconds slept{};
  /// Called in place of each sleep.
  std::function<void()> onSleep = [] {};
};

/// Counts a call of the calling thread; true when it fails.
bool fails(Call call);

/// The calling thread's object; null: none.
FailingVfs* currentVfs();

/// Has the file calls of SQLite fail as the object says, where the system allows it.
void interceptCalls();

}  // namespace marbleway::tests
