#include "Marbleway/platform/platform.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <thread>

#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/testing/fake_time.h"
#include "Marbleway/platform/testing/recording_console.h"
#include "tests/support/fixture.h"

namespace marbleway::platform {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

TEST(PlatformTest, TheHostsServicesComeBeforeTheSystemsOwnOneByOne) {
  const auto before = current();
  const auto console = std::make_shared<testing::RecordingConsole>();
  const auto clock = std::make_shared<testing::FakeTime>();
  install({.console = console});
  install({.clock = clock});
  EXPECT_EQ(current()->console, console);
  EXPECT_EQ(current()->clock, clock);
  EXPECT_EQ(current()->mainLoop, before->mainLoop);
  EXPECT_NE(before->console, console) << "work in flight keeps its services";
  install(*before);
}

std::atomic<int> childrenSeen = 0;

/// True once `loop` has run a task.
bool runs(MainLoop& loop) {
  const auto ran = std::make_shared<std::promise<void>>();
  loop.post([ran] { ran->set_value(); });
  return ran->get_future().wait_for(30s) == std::future_status::ready;
}

/// Ends the process: with 0 when its children, forked while its threads are busy with the library's
/// locks, find the host's console and a loop of their own that runs.
[[noreturn]] void forkWhileBusy() {
  const auto console = std::make_shared<testing::RecordingConsole>();
  install({.console = console});
  watchForks([] { ++childrenSeen; });
  watchForks([] { childrenSeen += 100; });  // changes nothing
  const auto parents = current();
  const auto timer = parents->mainLoop->repeat(0ns, [] { current(); });
  std::promise<void> started;
  std::jthread busy([&](const std::stop_token& stop) {
    started.set_value();
    while (!stop.stop_requested()) current();
  });
  // From here on these threads allocate nothing: AddressSanitizer's locks are not made for forks.
  started.get_future().wait();
  bool sound = runs(*parents->mainLoop);
  for (int i = 0; i < 20 && sound; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);  // ends a child that hangs
      timer->invalidate();
      const auto own = current();
      sound = childrenSeen == 1 && own->console == console && own->mainLoop != parents->mainLoop;
      _exit(sound && runs(*own->mainLoop) ? 0 : 1);
    }
    int status = 0;
    sound = waitpid(child, &status, 0) == child && status == 0;
  }
  sound = sound && childrenSeen == 0 && current() == parents && runs(*parents->mainLoop);
  busy.request_stop();
  busy.join();
  std::exit(sound ? 0 : 1);  // the loop and its timer run on
}

TEST(PlatformTest, ChildrenOfAForkHaveServicesOfTheirOwnAndTheParentKeepsIts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process with nothing installed yet
  EXPECT_EXIT(forkWhileBusy(), ::testing::ExitedWithCode(0), "");
}

TEST(PathsTest, DataStandsWhereTheEnvironmentSaysIfThatIsAbsolute) {
  using Variable = std::optional<std::string>;
  const auto set = [](const char* name, const Variable& value) {
    value ? setenv(name, value->c_str(), 1) : unsetenv(name);
  };
  const char* former = std::getenv("HOME");
  const Variable home = former == nullptr ? Variable() : former;
  set("HOME", "/me");
  for (const Variable& relative : {Variable(), Variable(""), Variable("data")}) {
    set("XDG_DATA_HOME", relative);
    EXPECT_EQ(defaultDataDirectory(), "/me/.local/share");
  }
  for (const Variable& relative : {Variable(), Variable(""), Variable("me")}) {
    set("HOME", relative);
    EXPECT_TRUE(defaultDataDirectory().is_absolute());
    EXPECT_TRUE(defaultDataDirectory().string().ends_with("/.local/share"));
  }
  set("XDG_DATA_HOME", "/data");
  EXPECT_EQ(defaultDataDirectory(), "/data");
  set("XDG_DATA_HOME", {});
  set("HOME", home);
}

TEST(PathsTest, TheDocumentsDirectoryStaysWhereItWasAndIsTheOwnersAlone) {
  setDocumentsDirectory({});
  const auto usual = documentsDirectory();
  EXPECT_TRUE(usual.starts_with("/"));
  EXPECT_TRUE(usual.ends_with("/marbleway/" + executableName()));

  const marbleway::testing::TemporaryDirectory folder;
  const auto before = fs::current_path();
  fs::current_path(folder.path());
  setDocumentsDirectory("deep/down/");
  fs::current_path(before);
  EXPECT_EQ(documentsDirectory(), (folder.path() / "deep/down/").string());
  makeDocumentsDirectory();
  EXPECT_EQ(fs::status(folder.path() / "deep/down").permissions(), fs::perms::owner_all);
  setDocumentsDirectory({});
  EXPECT_EQ(documentsDirectory(), usual);
}

}  // namespace
}  // namespace marbleway::platform
