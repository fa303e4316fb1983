#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Outcome {
  std::string output;
  int status = 0;
  steady_clock::duration time{};
};

class CrashHookTest : public ::testing::Test {
 protected:
  // Sanitizers leave fatal signals to the child, as they are without them, and let it end at once.
  static void SetUpTestSuite() {
    addOptions("ASAN_OPTIONS", kSignals);
    addOptions("UBSAN_OPTIONS", kSignals);
    addOptions("TSAN_OPTIONS", std::string(kSignals) + ":atexit_sleep_ms=0");
  }

 private:
  static constexpr const char* kSignals =
      "handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:handle_sigfpe=0";

  static void addOptions(const char* variable, const std::string& options) {
    const char* given = std::getenv(variable);
    setenv(variable, (given == nullptr ? options : given + (":" + options)).c_str(), 1);
  }
};

// Runs the program that fails in the way of that name, until it has ended.
Outcome fail(const std::string& way) {
  std::array<int, 2> pipe{};
  EXPECT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  std::string program = CRASHING_CHILD;
  std::string argument = way;
  const std::array<char*, 3> arguments{program.data(), argument.data(), nullptr};
  pid_t child = 0;
  const auto start = steady_clock::now();
  EXPECT_EQ(posix_spawn(&child, CRASHING_CHILD, &actions, nullptr, arguments.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe[1]);

  Outcome outcome;
  std::array<char, 4096> block{};
  for (ssize_t got = 0; (got = read(pipe[0], block.data(), block.size())) > 0;) {
    outcome.output.append(block.data(), static_cast<std::size_t>(got));
  }
  close(pipe[0]);
  EXPECT_EQ(waitpid(child, &outcome.status, 0), child);
  outcome.time = steady_clock::now() - start;
  return outcome;
}

int signalOf(int status) { return WIFSIGNALED(status) ? WTERMSIG(status) : 0; }

int reportsIn(const std::string& output) {
  int count = 0;
  for (auto at = output.find("report: "); at != std::string::npos;
       at = output.find("report: ", at + 1)) {
    ++count;
  }
  return count;
}

TEST_F(CrashHookTest, ReportsEveryKindOfFailureOnceAndLeavesTheEndAsItWas) {
  struct Case {
    const char* way;
    int signal;
    const char* description;
    const char* function;  // in a line of the call stack
  };
  const std::vector<Case> cases = {
      {"throw", SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "},
      {"throw a number", SIGABRT, "int: not a std::exception", "failing::throwNumber() + "},
      {"throw in a thread", SIGABRT, "std::runtime_error: disk on fire",
       "failing::throwError() + "},
      {"throw in four threads", SIGABRT, "std::runtime_error: disk on fire",
       "failing::throwError() + "},
      {"what throws", SIGABRT, "failing::Liar: what() failed", "failing::throwLiar() + "},
      {"terminate", SIGABRT, "std::terminate: no exception", "main + "},
      {"write", SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x10",
       "failing::writeToBadAddress() + "},
      {"jump", SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x10",
       "0 ? 0x0000000000000010\n1 crashing_child"},
      {"divide", SIGFPE, "Signal 8 (SIGFPE): Floating point exception at address 0x",
       "failing::divideByZero() + "},
      {"abort", SIGABRT, "Signal 6 (SIGABRT): Aborted\n", "abort + "},
      {"raise SIGBUS", SIGBUS, "Signal 7 (SIGBUS): Bus error\n", "gsignal + "},
      {"overflow", SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x",
       "failing::useUpStack(int) + "},
  };
  for (const Case& failure : cases) {
    SCOPED_TRACE(failure.way);
    const Outcome outcome = fail(failure.way);
    EXPECT_EQ(signalOf(outcome.status), failure.signal);
    EXPECT_THAT(outcome.output,
                AllOf(StartsWith(std::string("report: ") + failure.description), HasSubstr("\n0 "),
                      HasSubstr(failure.function), EndsWith("end\n")));
    EXPECT_EQ(reportsIn(outcome.output), 1);
  }
}

TEST_F(CrashHookTest, WhatStoodBeforeRunsAfterwards) {
  const Outcome terminated = fail("former terminate");
  EXPECT_THAT(terminated.output, EndsWith("end\nformer terminate handler\n"));
  EXPECT_EQ(reportsIn(terminated.output), 1);
  EXPECT_EQ(signalOf(terminated.status), SIGABRT);

  const Outcome signalled = fail("former handler");
  EXPECT_THAT(signalled.output, EndsWith("end\nformer handler\n"));
  EXPECT_EQ(reportsIn(signalled.output), 1);
  EXPECT_EQ(WEXITSTATUS(signalled.status), 3);
}

TEST_F(CrashHookTest, AFailureOfTheReportNeitherRecursesNorHangs) {
  const std::vector<std::pair<const char*, int>> cases = {
      {"handler blocks", SIGABRT},   {"handler throws", SIGSEGV},
      {"handler crashes", SIGABRT},  {"handler terminates", SIGSEGV},
      {"no thread, throw", SIGABRT}, {"no thread, handler terminates", SIGABRT},
  };
  for (const auto& [way, signal] : cases) {
    SCOPED_TRACE(way);
    const Outcome outcome = fail(way);
    EXPECT_EQ(signalOf(outcome.status), signal);
    EXPECT_EQ(reportsIn(outcome.output), 1) << outcome.output;
    EXPECT_LT(outcome.time, std::chrono::milliseconds(3500));  // of which 2 s are waited
  }
}

TEST_F(CrashHookTest, LeavesAloneWhatIsNoFailureOfThisProcess) {
  const Outcome ignored = fail("ignored");
  EXPECT_EQ(ignored.status, 0);
  EXPECT_EQ(ignored.output, "");

  for (const auto& [way, signal] : {std::pair{"fork", SIGSEGV}, {"fork, throw", SIGABRT}}) {
    SCOPED_TRACE(way);
    const Outcome outcome = fail(way);
    EXPECT_EQ(WEXITSTATUS(outcome.status), signal);
    EXPECT_EQ(outcome.output, "");
    EXPECT_LT(outcome.time, std::chrono::milliseconds(1500));  // not those 2 s
  }
}

TEST_F(CrashHookTest, WithoutAThreadForTheReportASignalTakesItsCourse) {
  const Outcome outcome = fail("no thread, write");
  EXPECT_EQ(signalOf(outcome.status), SIGSEGV);
  EXPECT_EQ(outcome.output, "");
}

}  // namespace
