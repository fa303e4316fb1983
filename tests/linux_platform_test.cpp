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

#include "Marbleway/platform/busy_budget.h"
#include "Marbleway/platform/linux/services.h"
#include "Marbleway/platform/linux/time_zone.h"
#include "Marbleway/platform/platform.h"
#include "tests/support/fixture.h"

namespace marbleway::platform {
namespace {

namespace fs = std::filesystem;

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

TEST_F(FileDefaultsTest, StoresTextsAndFlagsAmongOtherMembers) {
  write(file, R"({"z": [1, 2.5, {"deep": null}], "Flag": false, "Old": "1", "Nothing": null})");
  const auto defaults = makeFileDefaults(file);
  EXPECT_THAT(defaults->text("Old"), Optional(std::string("1")));
  EXPECT_EQ(defaults->text("Flag"), std::nullopt);
  defaults->setFlag("Flag", true);
  defaults->setText("New", "\xC3\xA9 \"");
  defaults->remove("Old");
  defaults->synchronize();
  EXPECT_EQ(valueFromJSON(read(file)),
            valueFromJSON("{\"z\":[1,2.5,{\"deep\":null}],\"Flag\":true,\"Nothing\":null,"
                          "\"New\":\"\xC3\xA9 \\\"\"}"));
}

TEST_F(FileDefaultsTest, ReplacesTheFileWholeAndOnlyForAChange) {
  const std::string content = R"({"a": "1", "b": true})";
  write(file, content);
  std::ifstream before(file);
  const auto defaults = makeFileDefaults(file);
  defaults->setFlag("b", true);
  defaults->remove("absent");
  defaults->synchronize();
  EXPECT_EQ(read(file), content);

  const auto temporary = file.string() + ".new";
  ASSERT_EQ(mkfifo(temporary.c_str(), S_IRUSR | S_IWUSR), 0);  // opening it would block
  const mode_t mask = umask(0777);
  defaults->setText("a", "2");
  defaults->synchronize();
  umask(mask);
  EXPECT_EQ(read(file), R"({"a":"2","b":true})");
  EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
  EXPECT_FALSE(fs::exists(temporary));
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

/// Limits a resource of the process to nothing.
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

TEST_F(FileDefaultsTest, MergesChangesOnceTheFileCanBeRead) {
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

TEST_F(FileDefaultsTest, WritesLaterWhatCouldNotBeWritten) {
  const fs::path folder = directory.path() / "later";
  const fs::path settings = folder / file.filename();
  const auto defaults = makeFileDefaults(settings);
  defaults->setText("a", "1");
  defaults->synchronize();  // into a folder that is missing
  fs::create_directory(folder);
  const int stuck = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(stuck, LOCK_EX), 0);
  const auto start = std::chrono::steady_clock::now();
  {
    const BusyBudget budget;  // one call, however often it writes
    for (int i = 0; i < 3; ++i) defaults->synchronize();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3500));
  close(stuck);
  {
    const NoneOf bytes(RLIMIT_FSIZE);
    defaults->synchronize();
  }
  EXPECT_TRUE(fs::is_empty(folder));
  defaults->synchronize();
  EXPECT_EQ(read(settings), R"({"a":"1"})");
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

TEST_F(FileDefaultsTest, ARemovedTextDoesNotComeBack) {
  const auto defaults = makeFileDefaults(file);
  defaults->setText("user", "linked");
  defaults->synchronize();
  {
    const NoneOf bytes(RLIMIT_FSIZE);
    defaults->remove("user");
    defaults->synchronize();
    defaults->setTextIfMissing("user", "new");
    defaults->synchronize();
  }
  defaults->synchronize();
  EXPECT_EQ(read(file), R"({"user":"new"})");
}

TEST_F(FileDefaultsTest, MakesTheDocumentsDirectoryWhenFirstWritten) {
  const fs::path documents = directory.path() / "new" / "documents";
  const auto defaults = makeFileDefaults();
  setDocumentsDirectory(documents / "");
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

TEST_F(FileDefaultsTest, TheVendorIdentifierIsMadeOnce) {
  const auto former = current();
  Platform launch;
  std::set<std::string> identifiers;
  for (int i = 0; i < 2; ++i) {  // the second finds the first one's
    launch.userDefaults = makeFileDefaults(file);
    install(launch);
    const auto device = makeLinuxDevice();
    std::array<std::string, 4> found;
    std::vector<std::thread> threads;
    threads.reserve(found.size());
    for (auto& identifier : found) {
      threads.emplace_back([&] { identifier = device->vendorIdentifier(); });
    }
    for (auto& thread : threads) thread.join();
    identifiers.insert(found.begin(), found.end());
  }
  install(*former);
  EXPECT_THAT(identifiers, ElementsAre(MatchesRegex(kUUID)));
  EXPECT_EQ(read(file), R"({"Marbleway_VendorID":")" + *identifiers.begin() + R"("})");
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

TEST_F(StandardErrorTest, DropsLinesThatCannotBeWrittenAtOnce) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
  fcntl(pipe[1], F_SETPIPE_SZ, 4096);
  dup2(pipe[1], STDERR_FILENO);
  close(pipe[1]);
  const auto console = makeStandardError();
  for (int i = 0; i < 100; ++i) console->writeLine(std::string(99, 'x'));
  EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
  dup2(ends[1], STDERR_FILENO);  // the number now belongs to something else
  console->writeLine("lost");
  EXPECT_EQ(nextWrite(), "none");
  std::array<char, 8192> got{};
  EXPECT_EQ(::read(pipe[0], got.data(), got.size()), 4000);
  close(pipe[0]);
}

}  // namespace
}  // namespace marbleway::platform
