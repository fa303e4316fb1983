#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Marbleway/platform/linux/services.h"
#include "Marbleway/platform/linux/time_zone.h"
#include "Marbleway/platform/platform.h"
#include "tests/support/fixture.h"

namespace marbleway::platform {
namespace {

namespace fs = std::filesystem;

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using ::testing::Optional;

constexpr const char* kUUID = "[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}";

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

TEST_F(FileDefaultsTest, KeepsTextsAndFlagsAndWhatElseTheFileHolds) {
  write(file, R"({"z": [1, 2.5, {"deep": null}], "Flag": false, "Old": "1", "Nothing": null})");
  const auto defaults = makeFileDefaults(file);
  EXPECT_THAT(defaults->text("Old"), Optional(std::string("1")));
  EXPECT_EQ(defaults->text("Flag"), std::nullopt);
  EXPECT_EQ(defaults->text("None"), std::nullopt);
  defaults->setFlag("Flag", true);
  defaults->setText("New", "\xC3\xA9 \"");
  defaults->remove("Old");
  defaults->synchronize();

  EXPECT_EQ(valueFromJSON(read(file)),
            valueFromJSON("{\"z\":[1,2.5,{\"deep\":null}],\"Flag\":true,\"Nothing\":null,"
                          "\"New\":\"\xC3\xA9 \\\"\"}"));
  EXPECT_THAT(makeFileDefaults(file)->text("New"), Optional(std::string("\xC3\xA9 \"")));
}

TEST_F(FileDefaultsTest, ReplacesTheFileWholeAndOnlyForAChange) {
  const std::string content = R"({"a": "1", "b": true})";
  write(file, content);
  std::ifstream before(file);
  const auto defaults = makeFileDefaults(file);
  defaults->setFlag("b", true);
  defaults->remove("absent");
  defaults->setText("a", "2");
  defaults->setText("a", "1");
  defaults->synchronize();
  EXPECT_EQ(read(file), content);

  const mode_t mask = umask(0777);
  defaults->setText("a", "2");
  defaults->synchronize();
  umask(mask);
  EXPECT_EQ(read(file), R"({"a":"2","b":true})");
  EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(before), {}), content);
}

TEST_F(FileDefaultsTest, AFileThatHoldsNoObjectIsKeptAside) {
  for (const std::string content : {"", "[1]", R"({"a":"1")", "\xFF\xFE"}) {
    SCOPED_TRACE(content);
    write(file, content);
    const auto defaults = makeFileDefaults(file);
    EXPECT_EQ(defaults->text("a"), std::nullopt);
    EXPECT_EQ(read(file.string() + ".unreadable"), content);
    defaults->setText("a", "2");
    defaults->synchronize();
    EXPECT_EQ(read(file), R"({"a":"2"})");
  }
}

/// Allows the process none of a resource while it lives.
class NoneOf {
 public:
  explicit NoneOf(__rlimit_resource resource) : resource_(resource) {
    EXPECT_EQ(getrlimit(resource_, &former_), 0);
    const rlimit none{0, former_.rlim_max};
    EXPECT_EQ(setrlimit(resource_, &none), 0);
  }
  NoneOf(const NoneOf&) = delete;
  NoneOf& operator=(const NoneOf&) = delete;
  ~NoneOf() { setrlimit(resource_, &former_); }

 private:
  __rlimit_resource resource_;
  rlimit former_{};
};

TEST_F(FileDefaultsTest, AFileThatCannotBeReadNowIsLeftAloneAndJoinedLater) {
  const std::string content = R"({"a": "1", "b": "1", "c": "1"})";
  write(file, content);
  const auto defaults = makeFileDefaults(file);
  {
    const NoneOf descriptors(RLIMIT_NOFILE);
    EXPECT_EQ(defaults->text("a"), std::nullopt);
    defaults->setText("b", "2");
    defaults->remove("c");
    defaults->synchronize();
    EXPECT_THAT(defaults->text("b"), Optional(std::string("2")));
  }
  EXPECT_EQ(read(file), content);
  EXPECT_THAT(defaults->text("a"), Optional(std::string("1")));
  defaults->synchronize();
  EXPECT_EQ(read(file), R"({"a":"1","b":"2"})");
}

TEST_F(FileDefaultsTest, AFailedWritingIsTriedAgainAndLeavesNothingBehind) {
  const fs::path folder = directory.path() / "later";
  const fs::path settings = folder / file.filename();
  const auto defaults = makeFileDefaults(settings);
  defaults->setText("a", "1");
  defaults->synchronize();  // into a folder that is missing
  fs::create_directory(folder);
  {
    const NoneOf bytes(RLIMIT_FSIZE);
    defaults->synchronize();
    EXPECT_TRUE(fs::is_empty(folder));
  }
  write(settings.string() + ".new", "a longer text than what is written: left by a kill");
  defaults->synchronize();
  EXPECT_EQ(read(settings), R"({"a":"1"})");
  EXPECT_FALSE(fs::exists(settings.string() + ".new"));
}

TEST_F(FileDefaultsTest, ThreadsThatSynchronizeLoseNothing) {
  const auto defaults = makeFileDefaults(file);
  std::vector<std::thread> threads;
  for (const char* key : {"a", "b", "c", "d"}) {
    threads.emplace_back([&defaults, key] {
      for (int i = 1; i <= 20; ++i) {
        defaults->setText(key, std::to_string(i));
        defaults->synchronize();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(read(file), R"({"a":"20","b":"20","c":"20","d":"20"})");
}

TEST_F(FileDefaultsTest, InstancesThatShareAFileKeepOneAnothersKeysAndOneIdentifier) {
  const auto one = makeFileDefaults(file);
  const auto other = makeFileDefaults(file);
  for (const auto& each : {one, other}) {
    EXPECT_EQ(each->text("identifier"), std::nullopt);
    each->setText("identifier", each == one ? "first" : "second");  // made up for want of one
  }
  one->setText("a", "1");
  other->setText("b", "1");
  one->synchronize();
  other->synchronize();
  EXPECT_EQ(read(file), R"({"a":"1","b":"1","identifier":"first"})");
  EXPECT_THAT(other->text("identifier"), Optional(std::string("first")));

  other->remove("a");
  other->synchronize();
  one->setText("c", "1");
  one->synchronize();
  EXPECT_EQ(read(file), R"({"b":"1","c":"1","identifier":"first"})");

  fs::remove(file);  // what was known of it is written anew
  one->setText("d", "1");
  one->synchronize();
  EXPECT_EQ(read(file), R"({"b":"1","c":"1","d":"1","identifier":"first"})");
}

TEST_F(FileDefaultsTest, AStuckHolderOfTheDirectoryIsWaitedForTwoSecondsAtMost) {
  const auto defaults = makeFileDefaults(file);
  defaults->setText("a", "1");
  const int stuck = open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(stuck, LOCK_EX), 0);
  const auto start = std::chrono::steady_clock::now();
  defaults->synchronize();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3500));
  EXPECT_FALSE(fs::exists(file));
  EXPECT_THAT(defaults->text("a"), Optional(std::string("1")));
  close(stuck);
  defaults->synchronize();
  EXPECT_EQ(read(file), R"({"a":"1"})");
}

TEST_F(FileDefaultsTest, AFileThatCannotBeReadForATimeLeadsToNoNewIdentifier) {
  const auto kept = file.string() + ".kept";
  write(kept, R"({"Marbleway_VendorID":"mine"})");
  const std::pair<const char*, std::function<void()>> obstacles[] = {
      {"EIO", [&] { fs::create_symlink("/proc/self/mem", file); }},
      {"ELOOP", [&] { fs::create_symlink(file, file); }},
      {"no file", [&] { fs::create_directory(file); }},
  };
  for (const auto& [name, obstruct] : obstacles) {
    SCOPED_TRACE(name);
    fs::remove(file);
    obstruct();
    const auto defaults = makeFileDefaults(file);
    EXPECT_EQ(defaults->text("Marbleway_VendorID"), std::nullopt);
    defaults->setText("Marbleway_VendorID", "made up");
    defaults->synchronize();
    fs::remove(file);
    fs::copy_file(kept, file);
    defaults->setText("a", "1");
    defaults->synchronize();
    EXPECT_THAT(defaults->text("Marbleway_VendorID"), Optional(std::string("mine")));
    EXPECT_EQ(read(file), R"({"Marbleway_VendorID":"mine","a":"1"})");
  }
}

TEST_F(FileDefaultsTest, StandInTheDocumentsDirectoryWhichIsMadeWhenTheyAreWritten) {
  const fs::path documents = directory.path() / "new" / "documents";
  const auto defaults = makeFileDefaults();
  setDocumentsDirectory(documents);
  defaults->setFlag("a", true);
  EXPECT_FALSE(fs::exists(documents));
  defaults->synchronize();
  setDocumentsDirectory({});
  EXPECT_EQ(read(documents / "user-defaults.json"), R"({"a":true})");
  EXPECT_EQ(fs::status(documents).permissions(), fs::perms(0700));
}

TEST(LinuxDeviceTest, AsksTheSystem) {
  const auto device = makeLinuxDevice();
  utsname kernel{};
  ASSERT_EQ(uname(&kernel), 0);
  EXPECT_EQ(device->model(), std::string(kernel.machine));
  EXPECT_THAT(device->systemVersion(), MatchesRegex("[0-9][-+.~0-9A-Za-z]*"));
  EXPECT_EQ(device->advertisingIdentifier(), "");
  EXPECT_THAT(device->newIdentifier(), MatchesRegex(kUUID));
  EXPECT_NE(device->newIdentifier(), device->newIdentifier());
  std::set<std::uint32_t> numbers;
  for (int i = 0; i < 200; ++i) numbers.insert(device->randomBelow(3));
  EXPECT_THAT(numbers, ElementsAre(0, 1, 2));
}

TEST_F(FileDefaultsTest, TheVendorIdentifierIsMadeOnceAndKept) {
  const auto former = current();
  Platform launch;
  launch.userDefaults = makeFileDefaults(file);
  install(launch);
  const auto device = makeLinuxDevice();
  std::array<std::string, 4> identifiers;
  std::vector<std::thread> threads;
  threads.reserve(identifiers.size());
  for (auto& identifier : identifiers) {
    threads.emplace_back([&] { identifier = device->vendorIdentifier(); });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_THAT(identifiers[0], MatchesRegex(kUUID));
  EXPECT_THAT(identifiers, Each(identifiers[0]));

  launch.userDefaults = makeFileDefaults(file);  // as the next launch finds it
  install(launch);
  EXPECT_EQ(makeLinuxDevice()->vendorIdentifier(), identifiers[0]);
  EXPECT_EQ(read(file), R"({"Marbleway_VendorID":")" + identifiers[0] + R"("})");
  install(*former);
}

TEST(TimeZoneTest, ComesFromTheVariableThenTheLinkThenTheFile) {
  struct Case {
    const char* variable;
    const char* link;
    const char* file;
    const char* name;
  };
  constexpr Case kCases[] = {
      {nullptr, nullptr, nullptr, "UTC"},
      {nullptr, nullptr, "Asia/Tokyo\n", "Asia/Tokyo"},
      {nullptr, "/usr/share/zoneinfo/Europe/Berlin", "Asia/Tokyo\n", "Europe/Berlin"},
      {nullptr, "../usr/share/zoneinfo/posix/America/Argentina/Salta", nullptr,
       "America/Argentina/Salta"},
      {nullptr, "/etc/zones/Berlin", "Asia/Tokyo\n", "Asia/Tokyo"},
      {"Africa/Cairo", "/usr/share/zoneinfo/Europe/Berlin", nullptr, "Africa/Cairo"},
      {":Africa/Cairo", nullptr, nullptr, "Africa/Cairo"},
      {"/usr/share/zoneinfo/right/Africa/Cairo", nullptr, nullptr, "Africa/Cairo"},
      {"Japan", nullptr, nullptr, "Japan"},
      {"", "/usr/share/zoneinfo/Europe/Berlin", nullptr, "UTC"},
      {"CET-1CEST,M3.5.0,M10.5.0/3", "/usr/share/zoneinfo/Europe/Berlin", nullptr, "Europe/Berlin"},
      {"../../../etc/timezone", nullptr, "Asia/Tokyo\n", "Asia/Tokyo"},
      {":/etc/localtime", "/usr/share/zoneinfo/Europe/Berlin", nullptr, "Europe/Berlin"},
  };
  for (const Case& zone : kCases) {
    SCOPED_TRACE(zone.name);
    const marbleway::testing::TemporaryDirectory root;
    fs::create_directories(root.path() / "etc");
    fs::create_directories(root.path() / "usr/share/zoneinfo");
    write(root.path() / "usr/share/zoneinfo/Japan", "TZif2");
    if (zone.link != nullptr) fs::create_symlink(zone.link, root.path() / "etc/localtime");
    if (zone.file != nullptr) write(root.path() / "etc/timezone", zone.file);
    EXPECT_EQ(timeZoneName(zone.variable, root.path()), zone.name);
  }
}

/// Standard error is one end of a socket that keeps each write apart.
class StandardErrorTest : public ::testing::Test {
 protected:
  StandardErrorTest() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
    dup2(ends[1], STDERR_FILENO);
  }
  ~StandardErrorTest() override {
    dup2(former, STDERR_FILENO);
    for (const int descriptor : {former, ends[0], ends[1]}) close(descriptor);
  }

  std::string nextWrite() {
    std::array<char, 4096> packet{};
    const ssize_t size = recv(ends[0], packet.data(), packet.size(), MSG_DONTWAIT);
    return size < 0 ? "none" : std::string(packet.data(), static_cast<std::size_t>(size));
  }

  const int former = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
  std::array<int, 2> ends{};
};

TEST_F(StandardErrorTest, EachLineIsOneWriteOfExactlyItsBytes) {
  using namespace std::string_literals;
  const auto console = makeStandardError();
  for (const std::string& line : {"Marbleway Message: %s\\n"s, ""s, "\0\xFF"s}) {
    console->writeLine(line);
    EXPECT_EQ(nextWrite(), line + "\n");
  }
  EXPECT_EQ(nextWrite(), "none");
}

bool isPending(int signal) {
  sigset_t pending;
  return sigpending(&pending) == 0 && sigismember(&pending, signal) == 1;
}

TEST_F(StandardErrorTest, AClosedPipeRaisesNothingInTheHost) {
  const auto console = makeStandardError();
  shutdown(ends[0], SHUT_RDWR);
  console->writeLine("lost");
  EXPECT_FALSE(isPending(SIGPIPE));

  sigset_t pipe;
  sigset_t before;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, &before);
  EXPECT_FALSE(sigismember(&before, SIGPIPE));  // let through again after the line
  raise(SIGPIPE);                               // the host's own
  console->writeLine("lost");
  EXPECT_TRUE(isPending(SIGPIPE));
  int taken = 0;
  sigwait(&pipe, &taken);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(StandardErrorTest, ALineThatAPipeTakesInPiecesIsFinished) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
  dup2(pipe[1], STDERR_FILENO);
  close(pipe[1]);
  const std::string line(1'000'000, 'x');
  std::thread writer([&] {
    makeStandardError()->writeLine(line);
    dup2(former, STDERR_FILENO);  // the pipe's last writing end is closed
  });
  std::string got;
  std::array<char, 65536> block{};
  for (ssize_t size = 0; (size = ::read(pipe[0], block.data(), block.size())) > 0;) {
    got.append(block.data(), static_cast<std::size_t>(size));
  }
  writer.join();
  close(pipe[0]);
  EXPECT_TRUE(got == line + "\n");
}

}  // namespace
}  // namespace marbleway::platform
