#include "platform/platform.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <thread>

#include "platform/fork.h"
#include "platform/paths.h"
#include "platform/testing/fake_time.h"
#include "platform/testing/recording_console.h"

namespace marbleway::platform {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using testing::FakeTime;
using testing::RecordingConsole;

TEST(PlatformTest, TheHostsServicesComeBeforeTheSystemsOwnOneByOne) {
  const auto before = current();
  const auto console = std::make_shared<RecordingConsole>();
  const auto clock = std::make_shared<FakeTime>();
  Platform first, second;
  first.console = console;
  second.clock = clock;
  install(first);
  install(second);
  const auto after = current();
  EXPECT_EQ(after->console, console);
  EXPECT_EQ(after->clock, clock);
  EXPECT_EQ(after->mainLoop, before->mainLoop);
  EXPECT_EQ(after->crashHook, before->crashHook);
  EXPECT_EQ(after, current());
  EXPECT_NE(before->console, console) << "work in flight keeps its services";
  install(*before);
  EXPECT_EQ(current()->console, before->console);
}

std::atomic<int> childrenSeen = 0;

/// True once `loop` has run a task.
bool runs(MainLoop& loop) {
  const auto ran = std::make_shared<std::promise<void>>();
  auto done = ran->get_future();
  loop.post([ran] { ran->set_value(); });
  return done.wait_for(30s) == std::future_status::ready;
}

/// Ends the process: with 0 when its children, forked while its threads are busy with the library's
/// locks, find the host's console and a loop of their own that runs.
[[noreturn]] void forkWhileBusy() {
  Platform host;
  host.console = std::make_shared<RecordingConsole>();
  install(host);
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
      _exit(childrenSeen == 1 && own->console == host.console &&
                    own->mainLoop != parents->mainLoop && runs(*own->mainLoop)
                ? 0
                : 1);
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

class PathsTest : public ::testing::Test {
 protected:
  PathsTest() {
    for (auto& [name, value] : former_) {
      if (const char* text = std::getenv(name)) value = text;
    }
  }
  ~PathsTest() override {
    for (const auto& [name, value] : former_) set(name, value ? value->c_str() : nullptr);
    fs::current_path(directory_);
    setDocumentsDirectory({});
  }

  static void set(const char* name, const char* value) {
    value == nullptr ? unsetenv(name) : setenv(name, value, 1);
  }

 private:
  std::pair<const char*, std::optional<std::string>> former_[2] = {{"XDG_DATA_HOME", {}},
                                                                   {"HOME", {}}};
  fs::path directory_ = fs::current_path();
};

TEST_F(PathsTest, DataStandsWhereTheEnvironmentSaysIfThatIsAbsolute) {
  const struct {
    const char *dataHome, *home, *expected;
  } kCases[] = {
      {"/data", "/home/me", "/data"},
      {nullptr, "/home/me", "/home/me/.local/share"},
      {"", "/home/me", "/home/me/.local/share"},
      {"data", "/home/me", "/home/me/.local/share"},
  };
  for (const auto& [dataHome, home, expected] : kCases) {
    SCOPED_TRACE(expected);
    set("XDG_DATA_HOME", dataHome);
    set("HOME", home);
    EXPECT_EQ(defaultDataDirectory(), expected);
  }
  for (const char* home : {static_cast<const char*>(nullptr), "", "me"}) {
    set("HOME", home);
    EXPECT_TRUE(defaultDataDirectory().is_absolute());
    EXPECT_TRUE(defaultDataDirectory().string().ends_with("/.local/share"));
  }
}

TEST_F(PathsTest, TheDocumentsDirectoryStaysWhereItWasAndIsTheOwnersAlone) {
  const auto usual = documentsDirectory();
  EXPECT_TRUE(usual.is_absolute());
  EXPECT_EQ(usual.filename(), executableName());
  EXPECT_EQ(usual.parent_path().filename(), "marbleway");
  set("XDG_DATA_HOME", "/elsewhere");
  EXPECT_EQ(documentsDirectory(), usual);

  std::string folder = ::testing::TempDir() + "documents-XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  fs::current_path(folder);
  setDocumentsDirectory("deep/down/");
  fs::current_path("/");
  EXPECT_EQ(documentsDirectory(), fs::path(folder) / "deep/down/");
  makeDocumentsDirectory();
  makeDocumentsDirectory();
  EXPECT_EQ(fs::status(folder + "/deep/down").permissions(), fs::perms::owner_all);
  fs::remove_all(folder);
  setDocumentsDirectory({});
  EXPECT_EQ(documentsDirectory(), usual);
}

}  // namespace
}  // namespace marbleway::platform
