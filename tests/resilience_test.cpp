#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <locale>
#include <random>
#include <set>
#include <thread>

#include "Marbleway/platform/background_loop.h"
#include "Marbleway/platform/linux/crash_hook.h"
#include "Marbleway/platform/linux/http_client.h"
#include "Marbleway/store/file_system.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/child.h"
#include "tests/support/failing_vfs.h"
#include "tests/support/fixture.h"
#include "tests/support/library.h"
#include "tests/support/loopback_server.h"
#include "tests/support/shortage.h"

namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using tests::Child, tests::LoopbackServer;

// The stress program has more rows and a shorter time: 100 ms, to which a sanitizer and a busy
// machine add.
constexpr std::size_t kRows = ROWS;
constexpr std::chrono::milliseconds kExitTime(EXIT_MILLISECONDS);

class ResilienceTest : public MarblewayTest {
 protected:
  ResilienceTest() { time->setWallClock(std::chrono::system_clock::now()); }  // as SQLite's
};

TEST_F(ResilienceTest, EightThreadsLoseNoRowWhileBatchesAreRead) {
  constexpr std::size_t kThreads = 8;
  beginSession();
  std::atomic<std::size_t> recording = kThreads;
  std::vector<std::jthread> threads(kThreads);
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads[thread] = std::jthread([&, thread] {
      for (std::size_t row = 0; row < kRows; ++row) {
        Marbleway::trackEvent(std::to_string(thread * kRows + row));
      }
      --recording;
    });
  }
  std::size_t seen = 0;
  do {
    batchData();
    const auto document = valueFromJSON(http->requests().back().body);
    const auto* arrays = document->as<Dictionary>()->find("BatchData")->as<Dictionary>();
    EXPECT_THAT(*arrays->find("Sessions")->as<Array>(), SizeIs(1));
    const Value* events = arrays->find("Events");
    const std::size_t count = events != nullptr ? events->as<Array>()->size() : 0;
    EXPECT_GE(count, seen);  // a writer makes no table look empty, or end early
    seen = count;
    answer(500);
  } while (recording > 0);
  threads.clear();
  const auto names = tests::eventsIn(directory.path());
  EXPECT_THAT(names, SizeIs(kThreads * kRows));
  EXPECT_THAT(std::set<std::string>(names.begin(), names.end()), SizeIs(kThreads * kRows));
}

TEST_F(ResilienceTest, RecordsAgainOnceThereIsRoomAndDescriptors) {
  using Case = std::pair<__rlimit_resource, rlim_t>;
  for (const auto& [resource, left] :
       {Case(RLIMIT_FSIZE, 0), Case(RLIMIT_FSIZE, 5000), Case(RLIMIT_FSIZE, 80000),
        Case(RLIMIT_NOFILE, 0), Case(RLIMIT_NOFILE, 1), Case(RLIMIT_NOFILE, 2)}) {
    for (const bool isFirstStart : {true, false}) {
      SCOPED_TRACE(std::to_string(left) + (resource == RLIMIT_FSIZE ? " bytes" : " descriptors") +
                   (isFirstStart ? " at the first start" : " later"));
      for (const auto& file : fs::directory_iterator(directory.path())) fs::remove(file);
      Child child([&, resource = resource, left = left] {
        if (!isFirstStart) Marbleway::initMarbleway("token");
        {
          const int lowestFree = resource == RLIMIT_NOFILE ? dup(STDERR_FILENO) : 0;
          if (lowestFree > 0) close(lowestFree);
          const Shortage shortage(resource, left + static_cast<rlim_t>(lowestFree));
          Marbleway::initMarbleway("token");
          for (int row = 0; row < 20; ++row) Marbleway::trackEvent(std::string(2000, 'x'));
          batchData();
        }
        lines();
        Marbleway::initMarbleway("token");
        Marbleway::trackEvent("after");
        EXPECT_THAT(lines(), ElementsAre("Marbleway Message: Starting Marbleway SDK",
                                         "Marbleway Message: Event Tracked"));
        tests::expectSoundStores(directory.path());
        EXPECT_EQ(tests::eventsIn(directory.path()).back(), "after");
      });
      EXPECT_EQ(child.wait(), "");
    }
  }
}

// A comma for the decimal point, points between thousands.
struct Foreign : std::numpunct<char> {
  Foreign() : numpunct(1) {}  // no locale destroys it
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(ResilienceTest, AnotherLocaleAndAnotherDirectoryChangeNothing) {
  Child child([&] {
    fs::current_path(directory.path());
    configure({.documentsDirectory = "data/here"});
    setenv("LC_ALL", "xx_YY.UTF-8", 1);  // one that the system does not have
    static Foreign foreign;
    std::locale::global(std::locale(std::locale(), &foreign));
    beginSession();
    fs::current_path("/");
    time->setWallClock(std::chrono::sys_days(std::chrono::year(2026) / 1 / 2) + 5ms);
    Marbleway::trackEvent("e", {{"Value", 1234567.5}, {"value", "12.5"}});
    const fs::path store = directory.path() / "data/here" / DBFileName;
    EXPECT_THAT(query(store, "SELECT EventAttributes, UTCTimeStamp FROM mrbw_v2_events"),
                ElementsAre(R"({"Value":1234567.5,"value":"12.5"}|2026-01-02 00:00:00.005)"));
    query(store, "UPDATE mrbw_v2_events SET id = 1234567");
    batchData();
    EXPECT_THAT(http->requests().back().body, HasSubstr(R"("id":"1234567")"));
  });
  EXPECT_EQ(child.wait(), "");
}

// As a signal handler does that interrupts a thread which holds locks.
TEST_F(ResilienceTest, AForkAmidAnOperationNeverWaitsForItself) {
  beginSession();
  sqlite3* other = nullptr;
  sqlite3_open(storePath().c_str(), &other);
  sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
  tests::FailingVfs vfs;
  vfs.onSleep = [&] {
    EXPECT_EQ(Child([] { Marbleway::trackEvent("e"); }).wait(), "");
    sqlite3_close(std::exchange(other, nullptr));
  };
  Marbleway::trackEvent("e");
  EXPECT_EQ(other, nullptr);
  EXPECT_THAT(tests::eventsIn(directory.path()), ElementsAre("e"));
}

// With this system's own services: none is a fake. Instants follow the seed, which each repetition
// increases.
class ProcessEndTest : public ::testing::Test {
 protected:
  // Ten directories to begin a process in.
  std::vector<fs::path> rounds() const {
    std::vector<fs::path> paths;
    for (int round = 0; round < 10; ++round) {
      paths.push_back(directory.path() / std::to_string(round));
      fs::create_directory(paths.back());
    }
    return paths;
  }
  std::chrono::microseconds instantWithin(std::chrono::microseconds longest) {
    return longest * (random_() % 1000) / 1000;
  }

  // Kills a process that records after `rows` of its rows and an instant; starts another.
  void kill(const fs::path& own, std::size_t rows) {
    constexpr std::size_t kMaxRows = 5000;
    const tests::RefusingPort nobody;
    Child child([&] {
      tests::startLibrary(own, nobody.url());
      for (std::size_t row = 0; row < kMaxRows; ++row) {
        Marbleway::trackEvent(std::to_string(row));
        Child::report(".");
      }
    });
    std::size_t returned = child.reported(rows).size();
    EXPECT_EQ(returned, rows);
    std::this_thread::sleep_for(instantWithin(20ms));
    child.kill();
    returned += child.reported(kMaxRows).size();
    Child next([&] {
      tests::startLibrary(own, nobody.url());
      Marbleway::trackEvent("after");
      tests::expectSoundStores(own);
    });
    EXPECT_EQ(next.wait(), "");
    auto names = tests::eventsIn(own);
    if (names.size() == returned + 2) names.erase(names.end() - 2);  // its call did not return
    ASSERT_EQ(names.size(), returned + 1);
    EXPECT_EQ(names.back(), "after");
    for (std::size_t i = 0; i < returned; ++i) EXPECT_EQ(names[i], std::to_string(i));
  }
  // Waits for the end of a child that reports a byte and exits.
  static void expectExitInTime(Child& child) {
    child.reported(1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(child.wait(), "");
    EXPECT_LE(std::chrono::steady_clock::now() - start, kExitTime);
  }
  [[noreturn]] static void exitNow() { Child::report("."), std::exit(EXIT_SUCCESS); }
  // Exits at an instant of a start, a batch and their requests to `url`.
  void exitInFlight(const std::string& url, const fs::path& authorities = {}) {
    for (const fs::path& own : rounds()) {
      const auto pause = instantWithin(60ms) / (1 << random_() % 8);  // early more often
      Child child([&] {
        platform::install({.httpClient = platform::makeCurlClient({.authorities = authorities})});
        tests::startLibrary(own, url);
        isConnectedToInternet = true;
        Marbleway::trackEvent("e");
        batchData();
        std::this_thread::sleep_for(pause);
        exitNow();
      });
      expectExitInTime(child);
    }
  }

  const TemporaryDirectory directory;

 private:
  std::mt19937 random_{static_cast<unsigned>(::testing::UnitTest::GetInstance()->random_seed())};
};

TEST_F(ProcessEndTest, AKilledFirstStartLeavesWholeStores) {
  for (const fs::path& own : rounds()) kill(own, 0);
}

TEST_F(ProcessEndTest, AKilledProcessLeavesEveryRowWhoseCallReturned) {
  std::size_t rows = 1;
  for (const fs::path& own : rounds()) kill(own, rows += 5);
}

TEST_F(ProcessEndTest, TheProcessEndsAtOnceWithRequestsInFlight) {
  // A process of its own: a fork must not copy the allocator's mutex while a thread holds it.
  Child silent([] {
    const LoopbackServer server({.manner = tests::Manner::never});
    Child::report(server.host() + '\n');
    pause();
  });
  const std::string host = silent.reported(100, '\n');
  const std::string path = "://" + host.substr(0, host.size() - 1) + "/v2/";
  exitInFlight("http" + path);
  exitInFlight("https" + path);  // TLS gets no reply to its greeting
  const fs::path authority = directory.path() / "authority.pem";
  Child trusted([&] {
    fs::current_path(directory.path());
    Child::exec(
        "exec 2>/dev/null; openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=127.0.0.1 "
        "-addext subjectAltName=IP:127.0.0.1 -keyout key.pem -out authority.pem && "
        "exec openssl s_server -www -accept 127.0.0.1:0 -cert authority.pem -key key.pem");
  });
  trusted.reported(1000, ':');
  const std::string port = trusted.reported(5, '\n');
  exitInFlight("https://127.0.0.1:" + port + "/v2/", authority);  // no answer to the request
}

// An event, and what else takes locks: the patterns, the locale, the settings.
void recordEverything(const std::string& event) {
  Marbleway::trackEvent(event, {{"value", "12.5"}});
  Marbleway::linkUser("someone@example.org", "email");
  Marbleway::setUserAttribute("Phone", "+49123456");
  Marbleway::startSession();
}

TEST_F(ProcessEndTest, AChildOfAForkStartsItselfAndNeverHangs) {
  const LoopbackServer silent({.manner = tests::Manner::never});
  Child parent([&] {
    tests::startLibrary(directory.path(), silent.url());
    std::atomic<bool> isOver = false;
    std::atomic<std::ptrdiff_t> rows = 0;
    std::vector<std::jthread> recorders(3);
    for (std::jthread& thread : recorders) {
      thread = std::jthread([&] {
        for (; !isOver; ++rows) recordEverything("parent");
      });
    }
    for (int i = 0; i < 10; ++i) {
      Child child([&] {
        EXPECT_TRUE(waitUntilIdle(0ms));
        recordEverything("before its start");
        tests::startLibrary(directory.path(), silent.url());
        EXPECT_FALSE(waitUntilIdle(0ms));
        recordEverything("child");
        exitNow();
      });
      expectExitInTime(child);
    }
    isOver = true;
    recorders.clear();
    const auto names = tests::eventsIn(directory.path());
    EXPECT_EQ(std::ranges::count(names, "parent"), rows);
    EXPECT_EQ(std::ranges::count(names, "child"), 10);
    EXPECT_EQ(std::ranges::count(names, "before its start"), 0);
  });
  EXPECT_EQ(parent.wait(), "");
}

TEST_F(ProcessEndTest, TwoProcessesShareRowsAndSettings) {
  const auto record = [&](const std::string& url, const char* user) {
    tests::startLibrary(directory.path(), url);
    EXPECT_TRUE(waitUntilIdle(30s));
    if (user != nullptr) Marbleway::linkUser(user, "id");
    for (std::size_t row = 0; row < kRows; ++row) Marbleway::trackEvent(url + std::to_string(row));
  };
  Child uploading([&] {
    const tests::RefusingPort nobody;
    Child offline([&] { record(nobody.url(), "ann"); });
    const LoopbackServer server({.body = R"({"Data":{"Config":{"SessionTimeout":300}}})"});
    record(server.url(), nullptr);
    EXPECT_EQ(offline.wait(), "");
    uploadNow();
    EXPECT_TRUE(waitUntilIdle(30s));
    EXPECT_THAT(tests::eventsIn(directory.path()), SizeIs(0));
    const auto requests = server.requests();  // the handshake and one batch
    ASSERT_THAT(requests, SizeIs(2));
    const auto document = valueFromJSON(requests[1].body);
    const auto* arrays = document->as<Dictionary>()->find("BatchData")->as<Dictionary>();
    const auto sent = [&](const char* array, const char* column) {
      std::vector<std::string> values;
      for (const Value& row : *arrays->find(array)->as<Array>()) {
        values.push_back(*row.as<Dictionary>()->find(column)->as<std::string>());
      }
      return values;
    };
    const auto events = sent("Events", "EventName"), devices = sent("Sessions", "PlatformDeviceID");
    EXPECT_THAT(events, SizeIs(2 * kRows));
    EXPECT_THAT(std::set<std::string>(events.begin(), events.end()), SizeIs(2 * kRows));
    EXPECT_THAT(devices, ElementsAre(devices.back(), devices.front()));
    std::ifstream file(directory.path() / "user-defaults.json");
    const std::string settings{std::istreambuf_iterator<char>(file), {}};
    EXPECT_THAT(settings, HasSubstr(R"("Marbleway_VendorID":")" + devices.front()));
    EXPECT_THAT(settings, HasSubstr(R"("Marbleway_UserID":"ann")"));
  });
  EXPECT_EQ(uploading.wait(), "");
}

TEST_F(ProcessEndTest, ShutdownGivesBackWhatWasInstalled) {
  const tests::RefusingPort nobody;
  Child child([&] {
    const auto handler = [] {
      struct sigaction action {};
      sigaction(SIGSEGV, nullptr, &action);
      return action.sa_sigaction;
    };
    std::signal(SIGSEGV, SIG_DFL);
    platform::install({.crashHook = platform::makeCrashHook()});
    const auto before = handler();
    tests::startLibrary(directory.path(), nobody.url());
    Marbleway::startSession();
    EXPECT_NE(handler(), before);
    EXPECT_NE(sqlite3_vfs_find(kStoreFileSystem), nullptr);
    shutdown();
    EXPECT_EQ(handler(), before);
    EXPECT_EQ(sqlite3_vfs_find(kStoreFileSystem), nullptr);
  });
  EXPECT_EQ(child.wait(), "");
}

TEST_F(ProcessEndTest, AForkBeforeTheStartLeavesItsTimers) {
  const LoopbackServer server({.body = R"({"Data":{"Config":{"SessionTimeout":0}}})"});
  const Child process([&] {
    configure({.documentsDirectory = directory.path()});
    Marbleway::trackDeepLink("app://open?mrbw_dlid=1");
    Child([] {}).wait();
    tests::startLibrary(directory.path(), server.url());
    pause();
  });
  // The handshake, and a batch when the session's timer ends it.
  EXPECT_THAT(server.waitForRequests(2), SizeIs(2));
}

}  // namespace
}  // namespace marbleway::testing
