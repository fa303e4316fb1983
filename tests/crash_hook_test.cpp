#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Outcome {
  std::string output;
  int end = 0;  // the exit status, or 128 and the signal
  steady_clock::duration time{};
};

// Runs the program that fails in the way of that name, until it has ended. Sanitizers leave fatal
// signals to it, as they are without them, and let it end at once.
Outcome fail(const std::string& way) {
  const std::string program =
      "S=handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:handle_sigfpe=0; "
      "exec env ASAN_OPTIONS=$ASAN_OPTIONS:$S UBSAN_OPTIONS=$UBSAN_OPTIONS:$S "
      "TSAN_OPTIONS=$TSAN_OPTIONS:$S:atexit_sleep_ms=0 '" CRASHING_CHILD "' '";
  Outcome outcome;
  const auto start = steady_clock::now();
  FILE* const child = popen((program + way + "'").c_str(), "re");
  if (child == nullptr) return outcome;
  for (int next = 0; (next = std::fgetc(child)) != EOF;) {
    outcome.output.push_back(static_cast<char>(next));
  }
  const int status = pclose(child);
  outcome.time = steady_clock::now() - start;
  outcome.end = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return outcome;
}

int reportsIn(const std::string& output) {
  int count = 0;
  for (std::size_t at = 0; (at = output.find("report: ", at)) != std::string::npos; ++at) ++count;
  return count;
}

// clang-format off
TEST(CrashHookTest, ReportsEveryKindOfFailureOnceAndLeavesTheEndAsItWas) {
  const struct {
    const char* way;
    int signal;
    const char* description;
    const char* function;  // in a line of the call stack
  } cases[] = {
      {"throw", SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "},
      {"no thread, throw", SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "},
      {"throw a number", SIGABRT, "int: not a std::exception", "failing::throwNumber() + "},
      {"throw in four threads", SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "},
      {"what throws", SIGABRT, "failing::Liar: what() failed", "failing::throwLiar() + "},
      {"terminate", SIGABRT, "std::terminate: no exception", "main + "},
      {"write", SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x10", "failing::writeToBadAddress() + "},
      {"jump", SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x10", "0 ? 0x0000000000000010\n1 crashing_child"},
      {"overflow", SIGSEGV, "Signal 11 (SIGSEGV): Segmentation fault at address 0x", "failing::useUpStack(int) + "},
      {"divide", SIGFPE, "Signal 8 (SIGFPE): Floating point exception at address 0x", "failing::divideByZero() + "},
      {"abort", SIGABRT, "Signal 6 (SIGABRT): Aborted\n", "abort + "},
      {"raise SIGBUS", SIGBUS, "Signal 7 (SIGBUS): Bus error\n", "gsignal + "},
      {"raise SIGILL", SIGILL, "Signal 4 (SIGILL): Illegal instruction\n", "gsignal + "},
  };
  // clang-format on
  for (const auto& [way, signal, description, function] : cases) {
    SCOPED_TRACE(way);
    const Outcome outcome = fail(way);
    EXPECT_EQ(outcome.end, 128 + signal);
    EXPECT_THAT(outcome.output, AllOf(StartsWith(std::string("report: ") + description),
                                      HasSubstr("\n0 "), HasSubstr(function), EndsWith("end\n")));
    EXPECT_EQ(reportsIn(outcome.output), 1);
  }
}

TEST(CrashHookTest, WhatStoodBeforeRunsAfterwards) {
  for (const auto& [way, said, end] :
       {std::tuple{"former terminate", "end\nformer terminate handler\n", 128 + SIGABRT},
        {"former handler", "end\nformer handler\n", 3}}) {
    const Outcome outcome = fail(way);
    EXPECT_THAT(outcome.output, EndsWith(said));
    EXPECT_EQ(reportsIn(outcome.output), 1);
    EXPECT_EQ(outcome.end, end);
  }
}

TEST(CrashHookTest, AFailureOfTheReportNeitherRecursesNorHangs) {
  for (const auto& [way, signal] : {std::pair{"handler blocks", SIGABRT},
                                    {"handler throws", SIGSEGV},
                                    {"handler crashes", SIGABRT},
                                    {"handler terminates", SIGSEGV},
                                    {"no thread, handler terminates", SIGABRT}}) {
    SCOPED_TRACE(way);
    const Outcome outcome = fail(way);
    EXPECT_EQ(outcome.end, 128 + signal);
    EXPECT_EQ(reportsIn(outcome.output), 1) << outcome.output;
    EXPECT_LT(outcome.time, 3500ms);  // of which 2 s are waited
  }
}

TEST(CrashHookTest, IsSilentAboutOtherProcessesWhatIsIgnoredAndASignalWithoutAThread) {
  for (const auto& [way, end] : {std::pair{"ignored", 0},
                                 {"fork", SIGSEGV},
                                 {"fork, throw", SIGABRT},
                                 {"no thread, write", 128 + SIGSEGV}}) {
    SCOPED_TRACE(way);
    const Outcome outcome = fail(way);
    EXPECT_EQ(outcome.end, end);
    EXPECT_EQ(outcome.output, "");
    EXPECT_LT(outcome.time, 1500ms);  // not those 2 s
  }
}

}  // namespace
