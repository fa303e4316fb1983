#include <process.h>

#include <chrono>

#include "tests/support/fixture.h"
#include "tests/support/loopback_server.h"  // with the system's header

namespace marbleway::tests {
namespace {

TEST(WindowsUnloadTest, AnUnloadedModuleEndsWithItsProcess) {
  const LoopbackServer silent({.manner = Manner::never});
  const testing::TemporaryDirectory folder;
  const std::string event = "marbleway-test-" + std::to_string(GetCurrentProcessId());
  HANDLE arrived = CreateEventA(nullptr, FALSE, FALSE, event.c_str());
  for (std::size_t number = 1; number <= ROUNDS / 2; ++number) {
    HANDLE process = reinterpret_cast<HANDLE>(
        _spawnl(_P_NOWAIT, UNLOADER, UNLOADER, LIBRARY, folder.path().generic_string().c_str(),
                silent.url().c_str(), event.c_str(), nullptr));
    ASSERT_THAT(silent.waitForRequests(number), ::testing::SizeIs(number));
    const auto begin = std::chrono::steady_clock::now();
    SetEvent(arrived);
    WaitForSingleObject(process, 60'000);
    EXPECT_LE(std::chrono::steady_clock::now() - begin,
              std::chrono::milliseconds(EXIT_MILLISECONDS));
    DWORD end = 1;
    GetExitCodeProcess(process, &end);
    EXPECT_EQ(end, 0U);
    CloseHandle(process);
  }
  CloseHandle(arrived);
}

}  // namespace
}  // namespace marbleway::tests
