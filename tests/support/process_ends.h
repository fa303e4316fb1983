#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>

// Ways in which a process ends, each played through by children of this one.
namespace marbleway::tests {

/// What does not hold, the first of it; empty: all does.
using Fault = std::string;

/// Starts the library in a child, its stores in the directory that is told beside it.
using Start = std::function<void()>;

/// How long a child is waited for.
inline constexpr std::chrono::seconds kPatience{30};

/// A child that does `work`, or is ended by an alarm. What it has to tell it writes to the
/// descriptor that its work is given.
class Child {
 public:
  explicit Child(const std::function<void(int told)>& work,
                 std::chrono::seconds atMost = kPatience);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  /// Takes bytes that it has told until there are `most`, it has ended, or the time is over.
  std::string told(std::size_t most, std::chrono::nanoseconds atMost = kPatience);
  void kill() const;
  /// Waits for its end. Its status as of `waitpid`: 0 when its work is done.
  int wait();

 private:
  pid_t process_ = -1;
  int told_ = -1;
};

/// The same for work that tells a fault. A child that has come to another end has one, too.
Fault faultOfChild(const std::function<Fault()>& work, std::chrono::seconds atMost = kPatience);

/// A child starts the library in the empty `directory` and records, until `kill -9` meets it
/// `instant` after its call for row number `rows` (0: none) has returned; the next start follows.
/// Every row whose call had returned is there, the stores are sound, and the next row is stored.
Fault killWhileRecording(const Start& start, const std::filesystem::path& directory,
                         std::size_t rows, std::chrono::nanoseconds instant);

/// How an exit went.
struct Exit {
  Fault fault;
  std::chrono::nanoseconds took{};  // from the call of `exit` to the end, as the parent sees it
};

/// A child begins what `begin` begins and calls `exit` after `pause`. It ends by that.
Exit exitInFlight(const std::function<void()>& begin, std::chrono::nanoseconds pause);

/// While three threads record, a child forks `forks` times, and each of its children records an
/// event and exits. No row is lost, and no child waits for, or sends, what the parent has begun.
/// `took` is the longest exit.
Exit forkWhileRecording(const Start& start, const std::filesystem::path& directory, int forks);

/// A way in which `crashing_child` fails, and what is told of it.
struct Failing {
  const char* way;
  int signal;               // that ends it
  const char* description;  // begins so
  const char* function;     // in a line of the call stack
};

// clang-format off
inline constexpr Failing kFailing[] = {
    {"throw", SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "},
    {"throw in a thread", SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "},
    {"throw in twenty threads", SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "},
    {"throw a number", SIGABRT, "int: not a std::exception", "failing::throwNumber() + "},
    {"throw a number in a thread", SIGABRT, "int: not a std::exception", "failing::throwNumber() + "},
    {"what throws", SIGABRT, "failing::Liar: what() failed", "failing::throwLiar() + "},
    {"what throws in a thread", SIGABRT, "failing::Liar: what() failed", "failing::throwLiar() + "},
    {"terminate", SIGABRT, "std::terminate: no exception", "main + "},
    {"terminate in a thread", SIGABRT, "std::terminate: no exception", "std::terminate() + "},
    {"write", SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x10", "failing::writeToBadAddress() + "},
    {"jump", SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x10", "0 ? 0x0000000000000010\n1 crashing_child"},
    {"overflow", SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x", "failing::useUpStack(int) + "},
    {"divide", SIGFPE, "Signal 8 (SIGFPE): Floating point exception at address 0x", "failing::divideByZero() + "},
    {"abort", SIGABRT, "Signal 6 (SIGABRT): Aborted\n", "abort + "},
    {"raise SIGBUS", SIGBUS, "Signal 7 (SIGBUS): Bus error\n", "gsignal + "},
    {"raise SIGILL", SIGILL, "Signal 4 (SIGILL): Illegal instruction\n", "gsignal + "},
};
// clang-format on

/// What `crashing_child` did.
struct Failed {
  std::string output;
  int end = 0;  // the exit status, or 128 and the signal
  std::chrono::steady_clock::duration time{};
};

/// Runs `program`, a `crashing_child`, until it has ended: with the crash hook alone, or with the
/// library, started in `directory`. Sanitizers leave fatal signals to it, as they are without them,
/// and let it end at once.
Failed fail(const std::string& program, const std::string& way,
            const std::filesystem::path& directory = {});

/// It fails in that way, with the library: there is one row of it, the stores are sound.
Fault crash(const std::string& program, const Failing& failing,
            const std::filesystem::path& directory);

}  // namespace marbleway::tests
