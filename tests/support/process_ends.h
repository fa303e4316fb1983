#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

// Ways in which a process ends, each played through by children of this one: a few rounds in the
// tests, many in the stress program.
namespace marbleway::tests {

/// What does not hold, the first of it; empty: all does.
using Fault = std::string;

/// How long a child may take.
inline constexpr std::chrono::seconds kPatience{60};

/// A child that does `work`, or is ended by an alarm. What it reports it writes to the descriptor
/// that its work is given.
class Child {
 public:
  explicit Child(const std::function<void(int reports)>& work,
                 std::chrono::seconds atMost = kPatience);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  /// Takes bytes that it has reported until there are `most`, it has ended, or the time is over.
  std::string reported(std::size_t most, std::chrono::nanoseconds atMost = kPatience);
  void kill() const;
  /// Waits for its end. Empty when its work is done.
  Fault wait();

 private:
  pid_t process_ = -1;
  int reports_ = -1;
};

/// The fault that `work` finds in a child, or how the child ended.
Fault faultOfChild(const std::function<Fault()>& work, std::chrono::seconds atMost = kPatience);

/// Rounds of one kind, each in an empty directory of its own below `directory`.
struct Rounds {
  std::filesystem::path directory;
  int count = 1;
  std::mt19937 random{};     // NOLINT(bugprone-random-generator-seed): each run names its seed
  std::string figures = {};  // what was measured

  /// The first fault of all rounds, with its number.
  Fault run(const std::function<Fault(const std::filesystem::path& directory)>& round);
  int below(int bound) { return std::uniform_int_distribution(0, bound - 1)(random); }
  /// An instant before `longest`.
  std::chrono::nanoseconds instant(std::chrono::milliseconds longest);
};

/// Starts the library with this system's own services: stores in `directory`, the server at `url`.
void startLibrary(const std::filesystem::path& directory, const std::string& url);
/// The names of all events in the store, in order.
std::vector<std::string> eventsIn(const std::filesystem::path& directory);
/// Both stores are sound, with all their tables, and no half-made file lies beside them.
Fault faultOfStores(const std::filesystem::path& directory);

/// `kill -9` at any instant of a first start, or after some of the rows that it records. At the
/// next start every row whose call had returned is there, and the next row is stored.
Fault killFirstStart(Rounds& rounds);
Fault killRecording(Rounds& rounds);

/// `exit` at any instant of what `begin` begins: the process ends by that, within `most`.
Fault exitInFlight(Rounds& rounds, const std::function<void(const std::filesystem::path&)>& begin,
                   std::chrono::milliseconds most);

/// Forks while three threads record. Each child finds the library not started, starts it, records
/// an event and exits within `most`. The parent loses no row.
Fault forkRecording(Rounds& rounds, std::chrono::milliseconds most);

/// A way in which `crashing_child` fails, and what is to come of it.
struct Failing {
  const char* way;
  int end;                  // its exit status, or 128 and its signal
  const char* description;  // the row's begins so; null: there is no row
  const char* function;     // a part of the row's call stack
};

// clang-format off
inline constexpr Failing kFailing[] = {
    {"throw", 128 + SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "},
    {"throw a number", 128 + SIGABRT, "int: not a std::exception", "failing::throwNumber() + "},
    {"throw in a thread", 128 + SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "},
    {"throw in twenty threads", 128 + SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "},
    {"what throws in a thread", 128 + SIGABRT, "failing::Liar: what() failed", "failing::throwLiar() + "},
    {"terminate", 128 + SIGABRT, "std::terminate: no exception", "main + "},
    {"write", 128 + SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x10", "failing::writeToBadAddress() + "},
    {"write in twenty threads", 128 + SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x10", "failing::"},
    {"jump", 128 + SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x10", "0 ? 0x0000000000000010\n1 crashing_child"},
    {"divide", 128 + SIGFPE, "Signal 8 (SIGFPE): Floating point exception at address 0x", "failing::divideByZero() + "},
    {"abort", 128 + SIGABRT, "Signal 6 (SIGABRT): Aborted\n", "abort + "},
    {"raise SIGBUS", 128 + SIGBUS, "Signal 7 (SIGBUS): Bus error\n", "gsignal + "},
    {"raise SIGILL", 128 + SIGILL, "Signal 4 (SIGILL): Illegal instruction\n", "gsignal + "},
    {"raise SIGTRAP", 128 + SIGTRAP, "Signal 5 (SIGTRAP): Trace/breakpoint trap\n", "gsignal + "},
    {"raise SIGSYS", 128 + SIGSYS, "Signal 31 (SIGSYS): Bad system call\n", "gsignal + "},
    {"overflow after an operation", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "failing::useUpStack(int) + "},
    {"overflow in a watched thread", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "failing::useUpStack(int) + "},
    {"overflow in twenty threads", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "failing::useUpStack(int) + "},
    {"overflow on the main loop", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "failing::useUpStack(int) + "},
    {"write on the main loop", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "failing::writeToBadAddress() + "},
    {"double free, one arena", 128 + SIGABRT, "Signal 6 (SIGABRT): Aborted\n", "libc.so.6"},
    {"double free", 128 + SIGABRT, "Signal 6 (SIGABRT): Aborted\n", "libc.so.6"},
    {"corrupted heap, one arena", 128 + SIGABRT, "Signal 6 (SIGABRT): Aborted\n", "libc.so.6"},
    {"corrupted heap", 128 + SIGABRT, "Signal 6 (SIGABRT): Aborted\n", "libc.so.6"},
    {"in malloc", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "crashing_child + 0x"},
    {"in free", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "crashing_child + 0x"},
    {"in dlopen", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "module.so"},
    {"in a transaction", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "crashing_child"},
    {"while forking", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "crashing_child"},
    {"in a child that starts", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "main + "},
    {"in a child", 128 + SIGSEGV, nullptr, nullptr},
    {"no thread", 128 + SIGABRT, "std::runtime_error: disk on fire", "crashing_child + 0x"},
    {"handler exits", 3, "Signal 11 (SIGSEGV): ", "crashing_child + 0x"},
    {"handler gives up", 128 + SIGSEGV, "Signal 11 (SIGSEGV): ", "failing::writeToBadAddress() + "},
    {"handler jumps", 0, nullptr, nullptr},
    {"handler repairs", 0, nullptr, nullptr},
    {"handler jumps, then abort", 128 + SIGABRT, "Signal 6 (SIGABRT): Aborted\n", "abort + "},
    {"handler repairs, then divide", 128 + SIGFPE, "Signal 8 (SIGFPE): ", "main + "},
    {"former terminate", 3, "std::runtime_error: disk on fire", "failing::throwError() + "},
    {"ignored", 0, nullptr, nullptr},
    {"cancel", 0, nullptr, nullptr},
};
// clang-format on

/// What `crashing_child` did.
struct Failed {
  std::string output;
  int end = 0;  // the exit status, or 128 and the signal
};

/// Runs `program`, a `crashing_child`, until it has ended; its stores are in `directory`.
/// Sanitizers leave fatal signals to it, as they are without them, and let it end at once.
Failed fail(const std::string& program, const std::string& way,
            const std::filesystem::path& directory, int place = 0);

/// It fails in that way, at one of 48 places where they differ, and starts once more: there is one
/// row of it, or none where none is to be, and the stores are sound.
Fault crash(const std::string& program, const Failing& failing,
            const std::filesystem::path& directory, int place = 0);

}  // namespace marbleway::tests
