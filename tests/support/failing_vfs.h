#pragma once

#include <sqlite3.h>

#include <chrono>
#include <functional>
#include <optional>
#include <utility>

namespace marbleway::tests {

/// What SQLite asks of a file system; several make a mask.
enum FileCall : unsigned {
  kOpen = 1U << 0U,
  kRead = 1U << 1U,
  kWrite = 1U << 2U,
  kTruncate = 1U << 3U,
  kSync = 1U << 4U,
  kSize = 1U << 5U,
  kLock = 1U << 6U,
  kUnlock = 1U << 7U,
  kAccess = 1U << 8U,
  kDelete = 1U << 9U,
  kEveryCall = ~0U,
};

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

/// What becomes of the calls that fail: those of the kinds in `calls` count, and give `code`.
struct FileFailure {
  int code = SQLITE_IOERR;
  unsigned calls = kEveryCall;
};

/// SQLite's usual file system with calls that fail, a clock of its own and naps that take no time.
/// Nothing is forced to the disk. It is SQLite's default while it lives; one at a time, and no file
/// outlives it. Thread: one at a time.
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
  struct Calls;
  struct File;

  FileFailure failure_;
  NthFailure when_;
  std::optional<std::chrono::system_clock::time_point> now_;
  std::chrono::microseconds napped_{};
  std::function<void()> nap_ = [] {};
};

}  // namespace marbleway::tests
