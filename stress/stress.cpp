// What takes minutes. scripts/stress runs each test as often as its goal says.

#include <httplib.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include "Marbleway/platform/services.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"
#include "tests/support/library.h"
#include "tests/support/loopback_server.h"

namespace marbleway::tests {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::SizeIs;

class StressTest : public ::testing::Test {
 protected:
  const testing::TemporaryDirectory folder;
  const fs::path& directory = folder.path();
};

TEST_F(StressTest, TwoProcessesLoseOneRowInAHundred) {
  constexpr std::size_t kRows = 20000;
  const RefusingPort nobody;
  const auto record = [&] {
    startLibrary(directory, nobody.url());
    for (std::size_t row = 0; row < kRows; ++row) Marbleway::trackEvent("row");
  };
  Child one(record, 600s), other(record, 600s);
  EXPECT_EQ(one.wait() + other.wait(), "");
  const std::size_t lost = 2 * kRows - eventsIn(directory).size();
  std::cout << "figure: " << lost << " of " << 2 * kRows << " lost\n";
  EXPECT_LE(lost, 2 * kRows / 100);
}

// Settings with the keys `prefix` and 0, 1, ..., each reported once it has been written.
void writeAndReport(const fs::path& file, const std::string& prefix, int count) {
  const auto settings = platform::makeFileDefaults(file);
  for (int i = 0; i < count; ++i) {
    settings->setText(prefix + std::to_string(i), prefix);
    settings->synchronize();
    Child::report(".");
  }
}

TEST_F(StressTest, AKilledWriterTearsNoSettings) {
  const fs::path file = directory / "user-defaults.json";
  Child killed([&] { writeAndReport(file, "killed", 1000); });
  Child other([&] { writeAndReport(file, "other", 20); });
  const int seed = ::testing::UnitTest::GetInstance()->random_seed();
  std::size_t written = killed.reported(static_cast<std::size_t>(1 + seed % 20)).size();
  killed.kill();
  written += killed.reported(1000).size();
  EXPECT_EQ(other.wait(), "");
  std::ifstream stream(file);
  const auto settings = valueFromJSON(std::string(std::istreambuf_iterator<char>(stream), {}));
  ASSERT_TRUE(settings && !fs::exists(file.string() + ".unreadable")) << "torn";
  const auto& members = *settings->as<Dictionary>();
  for (std::size_t i = 0; i < std::max<std::size_t>(written, 20); ++i) {
    const std::string number = std::to_string(i);
    EXPECT_TRUE(i >= written || members.find("killed" + number) != nullptr) << i;
    EXPECT_TRUE(i >= 20 || members.find("other" + number) != nullptr) << i;
  }
}

// A file system of this process's own. A user who is not root becomes it in a namespace.
void mountSmall(const fs::path& directory) {
  const std::string user = std::to_string(getuid()), group = std::to_string(getgid());
  if (unshare(CLONE_NEWNS) != 0) {
    ASSERT_EQ(unshare(CLONE_NEWUSER | CLONE_NEWNS), 0);
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " + user + " 1";
    std::ofstream("/proc/self/gid_map") << "0 " + group + " 1";
  }
  ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  ASSERT_EQ(mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=256k,mode=0700"), 0);
}

// Every operation that writes, while a file takes every byte that is left.
void useWithoutSpace(const fs::path& directory) {
  std::ofstream ballast(directory / "ballast");
  while (ballast << 'x' << std::flush) continue;
  for (int i = 0; i < 200; ++i) Marbleway::trackEvent("x", {{"text", std::string(300, 'x')}});
  Marbleway::linkUser("someone@example.org", "email");
  batchData();
  Marbleway::stopSession();
  Marbleway::startSession();
  waitUntilIdle(10s);
  fs::remove(directory / "ballast");
}

TEST_F(StressTest, AFullFileSystemLosesNoOldRow) {
  for (const bool isFirstStart : {true, false}) {
    Child child([&] {
      ASSERT_NO_FATAL_FAILURE(mountSmall(directory));
      std::atomic<int> status = 500;  // of batches
      LoopbackServer server;
      server.answerWith([&](const Received& request) {
        const bool isBatch = request.head.find("/batch ") != std::string::npos;
        return Answer{.status = isBatch ? status.load() : 200, .body = "{}"};
      });
      if (isFirstStart) std::ofstream(directory / "ballast") << std::string(1 << 20, 'x');
      startLibrary(directory, server.url());
      for (int i = 0; i < 50; ++i) Marbleway::trackEvent("old");
      waitUntilIdle(10s);
      useWithoutSpace(directory);
      startLibrary(directory, server.url());
      waitUntilIdle(10s);
      Marbleway::trackEvent("after");
      const auto names = eventsIn(directory);
      EXPECT_EQ(names.empty() ? "" : names.back(), "after");
      EXPECT_THAT(names, Contains("old").Times(isFirstStart ? 0 : 50));
      expectSoundStores(directory);
      status = 200;
      batchData();
      EXPECT_TRUE(waitUntilIdle(10s));
      EXPECT_THAT(eventsIn(directory), SizeIs(0));
    });
    EXPECT_EQ(child.wait(), "");
  }
}

struct Sample {
  double kilobytes = 0;  // resident, of its own
  std::ptrdiff_t descriptors = 0, threads = 0;
};
Sample takeSample() {
  const auto entriesIn = [](const char* directory) {
    return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
  };
  Sample sample{.descriptors = entriesIn("/proc/self/fd"), .threads = entriesIn("/proc/self/task")};
  std::ifstream lines("/proc/self/status");
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("RssAnon:")) sample.kilobytes = std::strtod(&line[8], nullptr) * 1.024;
  }
  return sample;
}

// Accepts every project; one batch in four gets a 500.
void serve() {
  httplib::Server server;
  std::atomic<int> batches = 0;
  server.Post("/v2/mobile/(init|batch)", [&](const auto& request, auto& response) {
    const bool isBatch = request.path.ends_with("batch");
    response.status = isBatch && batches++ % 4 == 0 ? 500 : 200;
    response.set_content("{}", "application/json");
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  Child::report("http://127.0.0.1:" + std::to_string(port) + "/v2/\n");
  server.listen_after_bind();
}

// A session with rows of all sorts, uploaded at its end.
void useOnce(int number) {
  Marbleway::startSession();
  Marbleway::linkUser("someone@example.org", "email");
  for (int i = 0; i < 10; ++i) {
    Marbleway::trackEvent("event", {{"number", number}, {"text", std::string(100, 'x')}});
    Marbleway::trackScreenView("screen");
    Marbleway::setUserAttribute("attribute", "value");
  }
  Marbleway::logError("error", "message", std::runtime_error("reason"));
  Marbleway::stopSession();
  waitUntilIdle(10s);
}

// The first minute does not count. The server is a process of its own, whose memory is apart.
TEST_F(StressTest, EndlessWorkNeedsNoEndlessMemory) {
  const std::chrono::seconds duration(std::atoi(std::getenv("SOAK")));
  Child serving(serve, duration + 600s);
  std::string url = serving.reported(64, '\n');
  url.pop_back();
  startLibrary(directory, url);
  std::vector<Sample> samples;
  int sessions = 0;
  const auto start = std::chrono::steady_clock::now();
  for (auto next = start + 60s; std::chrono::steady_clock::now() < start + duration;) {
    useOnce(++sessions);
    if (std::chrono::steady_clock::now() < next) continue;
    samples.push_back(takeSample());
    next += 1s;
  }
  // Between the first and the last tenth of the samples, a second apart.
  const std::ptrdiff_t tenth = std::ssize(samples) / 10;
  ASSERT_GT(tenth, 0) << "too short";
  double growth = 0;
  for (std::ptrdiff_t i = 0; i < tenth; ++i) {
    growth += (samples.end() - 1 - i)->kilobytes - (samples.begin() + i)->kilobytes;
  }
  growth *= 60.0 / static_cast<double>(tenth * std::ssize(samples));
  std::cout << "figure: " << growth << " kB a minute, " << sessions << " sessions\n";
  EXPECT_LT(growth, 100);
  for (const Sample& sample : samples) {
    EXPECT_EQ(sample.descriptors, samples[0].descriptors);
    EXPECT_EQ(sample.threads, samples[0].threads);
  }
}

}  // namespace
}  // namespace marbleway::tests
