#include <process.h>

#include <chrono>
#include <fstream>
#include <random>

#include "Marbleway/platform/services.h"
#include "tests/support/fixture.h"
#include "tests/support/library.h"
#include "tests/support/loopback_server.h"  // with the system's header

namespace marbleway::tests {
namespace {

namespace fs = std::filesystem;
using testing::query;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr int kRounds = ROUNDS;
constexpr std::chrono::milliseconds kExitTime(EXIT_MILLISECONDS);

struct Crash {
  const char* name;
  DWORD end;
  const char* description;  // the row begins with it; null: there is no row
};

class WindowsProcessTest : public ::testing::TestWithParam<Crash> {
 protected:
  fs::path round(int number) const {
    fs::path own = folder_.path() / std::to_string(number);
    fs::create_directory(own);
    return own;
  }
  // Starts the actor; the process's handle.
  static HANDLE start(const char* action, const fs::path& own, const std::string& url) {
    return reinterpret_cast<HANDLE>(
        _spawnl(_P_NOWAIT, ACTOR, ACTOR, action, own.string().c_str(), url.c_str(), nullptr));
  }
  static DWORD wait(HANDLE process) {
    DWORD end = 0;
    EXPECT_EQ(WaitForSingleObject(process, 60'000), WAIT_OBJECT_0);
    GetExitCodeProcess(process, &end);
    CloseHandle(process);
    return end;
  }
  static int reported(const fs::path& own) {
    std::ifstream reports(own / "reports", std::ios::ate);
    return reports ? static_cast<int>(reports.tellg()) : 0;
  }
  // Kills the actor some time after that many reports; how many it made.
  int kill(const char* action, const fs::path& own, int reports) {
    HANDLE process = start(action, own, nobody.url());
    while (reported(own) < reports && WaitForSingleObject(process, 1) == WAIT_TIMEOUT) continue;
    WaitForSingleObject(process, random_() % 20);
    TerminateProcess(process, 9);
    EXPECT_EQ(wait(process), 9U);
    return reported(own);
  }

  const RefusingPort nobody;

 private:
  const testing::TemporaryDirectory folder_;
  std::mt19937 random_{static_cast<unsigned>(::testing::UnitTest::GetInstance()->random_seed())};
};

TEST_P(WindowsProcessTest, ACrashLeavesOneRowAndItsOwnEnd) {
  const auto& [name, end, description] = GetParam();
  const fs::path own = round(0);
  EXPECT_EQ(wait(start(name, own, nobody.url())), end);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(wait(start("Start", own, nobody.url())), 0U);
  expectSoundStores(own);
  const auto rows =
      query(own / DBFileName, "SELECT CrashDetails || char(10) || StackTrace FROM mrbw_v2_crashes");
  ASSERT_THAT(rows, SizeIs(description != nullptr ? 1 : 0));
  if (rows.empty()) return;
  EXPECT_THAT(rows[0], StartsWith(description));
  EXPECT_THAT(rows[0], ::testing::HasSubstr("actor.exe 0x"));
}
// clang-format off
INSTANTIATE_TEST_SUITE_P(Ways, WindowsProcessTest, ::testing::Values(
    Crash{"Write", EXCEPTION_ACCESS_VIOLATION, "Exception 0xc0000005 (EXCEPTION_ACCESS_VIOLATION) writing at address 0x10\n0 "},
    Crash{"Divide", EXCEPTION_INT_DIVIDE_BY_ZERO, "Exception 0xc0000094 (EXCEPTION_INT_DIVIDE_BY_ZERO) at address 0x"},
    Crash{"IllegalInstruction", EXCEPTION_ILLEGAL_INSTRUCTION, "Exception 0xc000001d (EXCEPTION_ILLEGAL_INSTRUCTION) at address 0x"},
    Crash{"Abort", 3, "Signal 22 (SIGABRT): Aborted\n0 "},
    Crash{"Throw", 3, "std::runtime_error: disk on fire\n0 "},
    Crash{"PureCall", EXCEPTION_ACCESS_VIOLATION, "Exception 0xc0000005 (EXCEPTION_ACCESS_VIOLATION) executing at address 0x0\n0 ? "},  // as this compiler has it
    Crash{"FilterExits", 7, "Exception 0xc0000005 (EXCEPTION_ACCESS_VIOLATION) writing at address 0x10\n0 "},
    Crash{"ThrowFilterExits", 7, "Exception 0x20474343 (C++ exception) at address 0x"},
    Crash{"ChainAfterARestart", EXCEPTION_ACCESS_VIOLATION, "Exception 0xc0000005 (EXCEPTION_ACCESS_VIOLATION) writing at address 0x10\n0 "},
    Crash{"FilterRepairs", 0, nullptr}),
    [](const auto& way) { return std::string(way.param.name); });
// clang-format on

TEST_F(WindowsProcessTest, AKilledProcessLeavesEveryRowWhoseCallReturned) {
  for (int number = 0; number < kRounds; ++number) {
    const fs::path own = round(number);
    const int reports = kill("Record", own, 3 * number);
    EXPECT_EQ(wait(start("Start", own, nobody.url())), 0U);
    expectSoundStores(own);
    const auto names = eventsIn(own);
    ASSERT_TRUE(std::ssize(names) == reports || std::ssize(names) == reports + 1);
    for (std::size_t i = 0; i < names.size(); ++i) EXPECT_EQ(names[i], std::to_string(i));
  }
}

TEST_F(WindowsProcessTest, AKilledWriterTearsNoSettings) {
  for (int number = 0; number < kRounds; ++number) {
    const fs::path own = round(number);
    const int reports = kill("Change", own, 1 + number);
    const auto settings = platform::makeFileDefaults(own / "user-defaults.json");
    for (int i = 0; i < reports; ++i) EXPECT_TRUE(settings->text(std::to_string(i))) << i;
    EXPECT_FALSE(fs::exists(own / "user-defaults.json.unreadable"));
  }
}

TEST_F(WindowsProcessTest, AProcessEndsAtOnceWithATransferInFlight) {
  const LoopbackServer silent({.manner = Manner::never});
  for (int number = 0; number < kRounds / 2; ++number) {
    for (const char* action : {"Return", "Exit"}) {
      const fs::path own = round(number);
      fs::remove(own / "reports");
      HANDLE process = start(action, own, silent.url());
      while (reported(own) < 1 && WaitForSingleObject(process, 1) == WAIT_TIMEOUT) continue;
      const auto begin = std::chrono::steady_clock::now();
      EXPECT_EQ(wait(process), 0U);
      EXPECT_LE(std::chrono::steady_clock::now() - begin, kExitTime);
    }
  }
}

}  // namespace
}  // namespace marbleway::tests
