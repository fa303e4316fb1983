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

/// A way in which `crashing_child` fails, and its row.
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
