#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/fixture.h"
#include "tests/support/process_ends.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

tests::Failed fail(const std::string& way) { return tests::fail(CRASHING_CHILD, way); }

int reportsIn(const std::string& output) {
  int count = 0;
  for (std::size_t at = 0; (at = output.find("report: ", at)) != std::string::npos; ++at) ++count;
  return count;
}

TEST(CrashHookTest, ReportsEveryKindOfFailureOnceAndLeavesTheEndAsItWas) {
  const tests::Failing withoutThread{
      "no thread, throw", SIGABRT, "std::runtime_error: disk on fire", "failing::throwError() + "};
  std::vector<tests::Failing> all(std::begin(tests::kFailing), std::end(tests::kFailing));
  all.push_back(withoutThread);
  for (const auto& [way, signal, description, function] : all) {
    SCOPED_TRACE(way);
    const tests::Failed outcome = fail(way);
    EXPECT_EQ(outcome.end, 128 + signal);
    EXPECT_THAT(outcome.output, AllOf(StartsWith(std::string("report: ") + description),
                                      HasSubstr("\n0 "), HasSubstr(function), EndsWith("end\n")));
    EXPECT_EQ(reportsIn(outcome.output), 1);
  }
}

TEST(CrashHookTest, TheLibraryKeepsARowOfEveryKindOfFailure) {
  for (const tests::Failing& failing : tests::kFailing) {
    SCOPED_TRACE(failing.way);
    const TemporaryDirectory documents;
    EXPECT_EQ(tests::crash(CRASHING_CHILD, failing, documents.path()), "");
  }
}

TEST(CrashHookTest, WhatStoodBeforeRunsAfterwards) {
  for (const auto& [way, said, end] :
       {std::tuple{"former terminate", "end\nformer terminate handler\n", 128 + SIGABRT},
        {"former handler", "end\nformer handler\n", 3}}) {
    const tests::Failed outcome = fail(way);
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
    const tests::Failed outcome = fail(way);
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
    const tests::Failed outcome = fail(way);
    EXPECT_EQ(outcome.end, end);
    EXPECT_EQ(outcome.output, "");
    EXPECT_LT(outcome.time, 1500ms);  // not those 2 s
  }
}

}  // namespace
}  // namespace marbleway::testing
