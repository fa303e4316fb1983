#pragma once

#include <sqlite3.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <optional>
#include <utility>

namespace marbleway::tests {

/// System calls of SQLite; several make a mask.
enum FileCall : unsigned { kOpen = 1, kRead = 2, kWrite = 4, kSync = 8, kLock = 16, kOther = 32 };

/// A failure of the `nth` of something (from 1; 0: of none), and of all after it if it lasts.
struct NthFailure {
  int nth = 0;
  bool lasts = false;
  int counted = 0;

  /// Counts one; true when that one fails.
  bool strikes() {
    if (nth == 0 || ++counted < nth) return false;
    return counted == nth || lasts;
  }
  /// Ends it. True when it was reached.
  bool end() {
    const bool wasReached = nth > 0 && counted >= nth;
    *this = {};
    return wasReached;
  }
};

/// The calls that count, and what `errno` is when one fails.
struct FileFailure {
  int error = EIO;
  unsigned calls = ~0U;
};

/// SQLite's file system with system calls that fail, a clock of its own and naps that take no time.
/// Nothing is forced to the disk. One object at a time. Thread: one at a time.
class FailingVfs {
 public:
  FailingVfs();
  FailingVfs(const FailingVfs&) = delete;
  FailingVfs& operator=(const FailingVfs&) = delete;
  ~FailingVfs();

  void fail(FileFailure failure, NthFailure when) { failure_ = failure, when_ = when; }
  /// Ends the failures. True when one was reached.
  bool recover() { return when_.end(); }

  /// What SQLite takes for the time; absent: the time.
  void setClock(std::optional<std::chrono::system_clock::time_point> now) { now_ = now; }
  /// How long the naps would have taken.
  std::chrono::microseconds napped() const { return napped_; }
  /// Called in place of each nap.
  void onNap(std::function<void()> work) { nap_ = std::move(work); }

 private:
  friend struct SystemCalls;

  FileFailure failure_;
  NthFailure when_;
  std::optional<std::chrono::system_clock::time_point> now_;
  std::chrono::microseconds napped_{};
  std::function<void()> nap_ = [] {};
};

}  // namespace marbleway::tests
