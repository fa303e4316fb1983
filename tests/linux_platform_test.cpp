#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>

#include "Marbleway/platform/background_loop.h"
#include "Marbleway/platform/busy_budget.h"
#include "Marbleway/platform/linux/fatal_signals.h"
#include "Marbleway/platform/linux/time_zone.h"
#include "Marbleway/platform/manual_loop.h"
#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/services.h"
#include "Marbleway/platform/settings_failure.h"
#include "tests/support/fixture.h"
#include "tests/support/main_loop.h"
#include "tests/support/shortage.h"

namespace marbleway::platform {
namespace {

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using ::testing::Optional;

void write(const fs::path& file, const std::string& bytes) { std::ofstream(file) << bytes; }

std::string read(const fs::path& file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

class FileDefaultsTest : public ::testing::Test {
 protected:
  marbleway::testing::TemporaryDirectory directory;
  const fs::path file = directory.path() / "user-defaults.json";
};

TEST_F(FileDefaultsTest, ReplacesTheFileWholeAndOnlyForAChange) {
  const std::string content = R"({"z": [1, 2.5, {"deep": null}], "Flag": true, "Old": "1"})";
  write(file, content);
  std::ifstream before(file);
  const auto defaults = makeFileDefaults(file);
  EXPECT_THAT(defaults->text("Old"), Optional(std::string("1")));
  EXPECT_EQ(defaults->text("Flag"), std::nullopt);
  defaults->setFlag("Flag", true);
  defaults->remove("absent");
  defaults->synchronize();
  EXPECT_EQ(read(file), content);
  ASSERT_EQ(mkfifo((file.string() + ".new").c_str(), 0600), 0);  // opening it would block
  defaults->setFlag("Flag", false);
  defaults->setText("New", "\xC3\xA9 \"");
  defaults->remove("Old");
  defaults->synchronize();
  EXPECT_EQ(read(file), "{\"Flag\":false,\"New\":\"\xC3\xA9 \\\"\",\"z\":[1,2.5,{\"deep\":null}]}");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(before), {}), content);
}

TEST_F(FileDefaultsTest, SetsAMalformedOrLargeFileAside) {
  const std::string large = R"({"a":")" + std::string(1 << 20, 'x') + "\"}";
  for (const std::string& content : {std::string(), std::string("[1]"), large}) {
    write(file, content);
    const auto defaults = makeFileDefaults(file);
    EXPECT_EQ(defaults->text("a"), std::nullopt);
    EXPECT_TRUE(read(file.string() + ".unreadable") == content);
    defaults->setText("a", "2");
    defaults->synchronize();
    EXPECT_EQ(read(file), R"({"a":"2"})");
  }
}

TEST_F(FileDefaultsTest, ATextTooLongForTheFileIsNotStored) {
  const std::string longest((1 << 20) - 4096 - 2, 'x');
  for (const auto& [text, stored] : {std::pair(longest, longest), {longest + 'x', std::string()}}) {
    const auto defaults = makeFileDefaults(file);
    defaults->setText("a", text);
    defaults->setText("b", "2");
    defaults->synchronize();
    EXPECT_TRUE(makeFileDefaults(file)->text("a").value_or("") == stored);
    EXPECT_THAT(makeFileDefaults(file)->text("b"), Optional(std::string("2")));
  }
}

TEST_F(FileDefaultsTest, MergesChangesOnceTheFileCanBeRead) {
  for (const fs::path& obstacle : {fs::path("/proc/self/mem"), file, fs::path("/")}) {
    SCOPED_TRACE(obstacle);
    fs::remove(file);
    fs::create_symlink(obstacle, file);  // to what cannot be read
    const auto defaults = makeFileDefaults(file);
    defaults->setTextIfMissing("identifier", "new");
    defaults->setText("b", "2");
    defaults->remove("c");
    defaults->synchronize();
    EXPECT_THAT(defaults->text("b"), Optional(std::string("2")));
    fs::remove(file);
    write(file, R"({"b":"1","c":"1","identifier":"first"})");
    EXPECT_THAT(defaults->text("identifier"), Optional(std::string("first")));
    defaults->synchronize();
    EXPECT_EQ(read(file), R"({"b":"2","identifier":"first"})");
  }
}

TEST_F(FileDefaultsTest, InstancesMergeTheirChangesAndShareIdentifiers) {
  const auto one = makeFileDefaults(file);
  const auto other = makeFileDefaults(file);
  one->setText("a", "1");
  one->setTextIfMissing("identifier", "first");
  other->setText("b", "1");
  other->setTextIfMissing("identifier", "second");
  one->synchronize();
  other->synchronize();
  EXPECT_EQ(read(file), R"({"a":"1","b":"1","identifier":"first"})");
  EXPECT_THAT(other->text("identifier"), Optional(std::string("first")));

  other->remove("a");
  other->synchronize();
  fs::remove(file);  // what was known of it is written again
  one->setText("c", "1");
  one->synchronize();
  EXPECT_EQ(read(file), R"({"a":"1","c":"1","identifier":"first"})");
}

// The documents directory is made with the first write.
TEST_F(FileDefaultsTest, WritesLaterWhatCouldNotBeWritten) {
  const fs::path documents = directory.path() / "new" / "documents";
  const fs::path settings = documents / file.filename();
  const auto defaults = makeFileDefaults();
  setDocumentsDirectory(documents);
  defaults->setText("user", "linked");
  EXPECT_FALSE(fs::exists(documents));
  defaults->synchronize();
  defaults->remove("user");
  {
    const marbleway::testing::Shortage bytes(RLIMIT_FSIZE, 0);
    defaults->synchronize();
  }
  EXPECT_FALSE(fs::exists(settings.string() + ".new"));
  defaults->setTextIfMissing("user", "new");  // the removed one does not come back
  const int held = open(documents.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  static int failures = 0;
  settingsFailed = [](std::string_view /*reason*/) noexcept { ++failures; };
  const auto start = std::chrono::steady_clock::now();
  {
    const BusyBudget budget;  // one call, however often it writes
    for (int i = 0; i < 3; ++i) defaults->synchronize();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3500));
  EXPECT_EQ(read(settings), R"({"user":"linked"})");
  EXPECT_EQ(failures, 3);
  settingsFailed = nullptr;
  close(held);
  defaults->synchronize();
  EXPECT_EQ(read(settings), R"({"user":"new"})");
  setDocumentsDirectory({});
}

TEST_F(FileDefaultsTest, TheDeviceAsksTheSystem) {
  const auto former = current();
  const auto device = makeDevice();
  const std::string uuid = "[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}";
  utsname kernel{};
  ASSERT_EQ(uname(&kernel), 0);
  EXPECT_EQ(device->model(), std::string(kernel.machine));
  EXPECT_THAT(device->systemVersion(), MatchesRegex("[0-9][-+.~0-9A-Za-z]*"));
  EXPECT_EQ(device->advertisingIdentifier(), "");
  EXPECT_NE(device->newIdentifier(), device->newIdentifier());
  std::set<std::uint32_t> numbers;
  for (int i = 0; i < 200; ++i) numbers.insert(device->randomBelow(3));
  EXPECT_THAT(numbers, ElementsAre(0, 1, 2));
  for (int launch = 0; launch < 2; ++launch) {  // the second finds the first one's
    install({.userDefaults = makeFileDefaults(file)});
    const std::string identifier = device->vendorIdentifier();
    EXPECT_THAT(identifier, MatchesRegex(uuid));
    EXPECT_EQ(read(file), R"({"Marbleway_VendorID":")" + identifier + R"("})");
  }
  install(*former);
}

TEST(PathsTest, DataDirectoryFollowsAbsoluteVariablesOnly) {
  const char* home = std::getenv("HOME");
  const std::string former = home == nullptr ? "" : home;
  for (const char* relative : {"", "data"}) {
    setenv("XDG_DATA_HOME", relative, 1);
    setenv("HOME", "/me", 1);
    EXPECT_EQ(defaultDataDirectory(), "/me/.local/share");
    setenv("HOME", relative, 1);
    EXPECT_THAT(defaultDataDirectory().string(), MatchesRegex("/.*/.local/share"));
  }
  setenv("XDG_DATA_HOME", "/data", 1);
  EXPECT_EQ(defaultDataDirectory(), "/data");
  unsetenv("XDG_DATA_HOME");
  setenv("HOME", former.c_str(), 1);
}

TEST(PathsTest, DocumentsDirectoryHasADefaultAndNoLastSlash) {
  setDocumentsDirectory({});
  const auto usual = documentsDirectory();
  EXPECT_TRUE(usual.starts_with("/") && usual.ends_with("/marbleway/" + executableName()));
  setDocumentsDirectory("/deep/down/");
  EXPECT_EQ(documentsDirectory(), "/deep/down");
  setDocumentsDirectory({});
  EXPECT_EQ(documentsDirectory(), usual);
}

TEST(TimeZoneTest, ComesFromTheVariableThenTheLinkThenTheFile) {
  const marbleway::testing::TemporaryDirectory root;
  const fs::path etc = root.path() / "etc", zones = root.path() / "usr/share/zoneinfo";
  EXPECT_EQ(timeZoneName(nullptr, root.path()), "UTC");
  fs::create_directories(etc);
  fs::create_directories(zones);
  write(etc / "timezone", "Asia/Tokyo\n");
  write(zones / "Japan", "TZif2");
  constexpr const char* kCases[][3] = {
      // the variable, the link, the name
      {nullptr, "../usr/share/zoneinfo/posix/America/Argentina/Salta", "America/Argentina/Salta"},
      {nullptr, "/etc/zones/Berlin", "Asia/Tokyo"},
      {"Africa/Cairo", "/usr/share/zoneinfo/Europe/Berlin", "Africa/Cairo"},
      {":/usr/share/zoneinfo/right/Africa/Cairo", "none", "Africa/Cairo"},
      {"Japan", "none", "Japan"},
      {"", "/usr/share/zoneinfo/Europe/Berlin", "UTC"},
      {"CET-1CEST,M3.5.0,M10.5.0/3", "/usr/share/zoneinfo/Europe/Berlin", "Europe/Berlin"},
      {":/etc/localtime", "/usr/share/zoneinfo/Europe/Berlin", "Europe/Berlin"},
  };
  for (const auto& [variable, link, name] : kCases) {
    fs::remove(etc / "localtime");
    fs::create_symlink(link, etc / "localtime");
    EXPECT_EQ(timeZoneName(variable, root.path()), name);
  }
}

TEST(MainLoopTest, WithoutAThreadATaskIsDropped) {
  const auto loop = makeBackgroundLoop();
  std::atomic<bool> ran = false;
  {
    const marbleway::testing::NoThreads none;
    loop->post([&] { ran = true; });
    loop->repeat({}, [&] { ran = true; })->invalidate();
  }
  EXPECT_TRUE(fires(*loop, 3));
  EXPECT_FALSE(ran);
}

TEST(MainLoopTest, WaitsWithoutProcessorTime) {
  const auto loop = makeBackgroundLoop();
  const auto timer = loop->repeat(std::chrono::hours(1), [] {});
  const std::clock_t before = std::clock();
  ManualLoop().pumpFor(std::chrono::milliseconds(200));
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);
  timer->invalidate();
}

TEST(MainLoopTest, BlocksAllButFatalSignals) {
  sigset_t before, after, inLoop;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  const auto loop = makeBackgroundLoop();
  loop->post([&] { pthread_sigmask(SIG_SETMASK, nullptr, &inLoop); });
  ASSERT_TRUE(runsPosted(*loop));
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int signal = 1; signal < 32; ++signal) {
    EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
    if (signal == SIGKILL || signal == SIGSTOP) continue;
    EXPECT_NE(sigismember(&inLoop, signal) == 1, std::ranges::count(kFatalSignals, signal) > 0);
  }
}

class StandardErrorTest : public ::testing::Test {
 protected:
  ~StandardErrorTest() override {
    dup2(standardError, STDERR_FILENO);
    for (const int descriptor : {standardError, ends[0], ends[1]}) close(descriptor);
  }

  /// What has come out of the first end, of a socket by the next write.
  std::string written() {
    std::string bytes(8192, '\0');
    bytes.resize(static_cast<std::size_t>(::read(ends[0], bytes.data(), bytes.size())));
    return bytes;
  }

  const int standardError = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
  std::array<int, 2> ends{};
};

TEST_F(StandardErrorTest, EachLineIsOneWriteOfExactlyItsBytes) {
  using namespace std::string_literals;
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
  dup2(ends[1], STDERR_FILENO);
  const auto console = makeStandardError();
  for (const std::string& line : {"Marbleway Message: %s\\n"s, ""s, "\0\xFF"s}) {
    console->writeLine(line);
    EXPECT_EQ(written(), line + "\n");
  }
}

TEST_F(StandardErrorTest, AClosedPipeRaisesNothingInTheHost) {
  static volatile std::sig_atomic_t delivered = 0;
  const auto former = std::signal(SIGPIPE, [](int) { delivered = delivered + 1; });
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  dup2(ends[1], STDERR_FILENO);
  const auto console = makeStandardError();
  close(std::exchange(ends[0], -1));
  console->writeLine("lost");
  EXPECT_EQ(delivered, 0);

  sigset_t pipe, before;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, &before);
  raise(SIGPIPE);  // the host's own
  console->writeLine("lost");
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(delivered, 1);
  std::signal(SIGPIPE, former);
}

TEST_F(StandardErrorTest, DropsLinesThatCannotBeWrittenAtOnce) {
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  fcntl(ends[1], F_SETPIPE_SZ, 4096);
  dup2(ends[1], STDERR_FILENO);
  const auto console = makeStandardError();
  for (int i = 0; i < 100; ++i) console->writeLine(std::string(99, 'x'));
  EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(written().size(), 4000U);
  dup2(memfd_create("other", MFD_CLOEXEC), STDERR_FILENO);  // the number is used anew
  console->writeLine("lost");
  EXPECT_EQ(lseek(STDERR_FILENO, 0, SEEK_END), 0);
}

}  // namespace
}  // namespace marbleway::platform
