#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <clocale>
#include <cstdlib>
#include <functional>
#include <locale>
#include <set>
#include <thread>

#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"
#include "tests/support/loopback_server.h"
#include "tests/support/process_ends.h"

namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;
using tests::LoopbackServer;
using tests::Manner;

// Tells the threads that record from the one that uploads: a day lies between them.
thread_local bool isTomorrow = false;

class TwoDays : public platform::Clock {
 public:
  std::chrono::system_clock::time_point now() override {
    return std::chrono::sys_days(std::chrono::year(2026) / 1 / (isTomorrow ? 3 : 2)) + 12h;
  }
};

class ResilienceTest : public MarblewayTest {
 protected:
  ResilienceTest() { time->setWallClock(std::chrono::system_clock::now()); }  // what SQLite goes by

  std::vector<std::string> eventNames() const {
    return query(storePath(), "SELECT EventName FROM mrbw_v2_events ORDER BY id");
  }
  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& file : fs::directory_iterator(directory.path())) {
      names.insert(file.path().filename());
    }
    return names;
  }
  void expectSoundStores() const {
    for (const Store store : {Store::event, Store::network}) {
      EXPECT_THAT(query(storePath(store), "PRAGMA integrity_check"), ElementsAre("ok"));
    }
    EXPECT_GE(rowCount(), 0);  // all tables are there
    EXPECT_THAT(files(), Each(Not(HasSubstr("-new"))));
  }
  // What a child finds that does `work`, expectations and all.
  static tests::Fault faultIn(const std::function<void()>& work) {
    return tests::faultOfChild([&] {
      work();
      return HasFailure() ? "an expectation failed" : "";
    });
  }
};

TEST_F(ResilienceTest, EightThreadsLoseNoRowWhileBatchesAreReadAndAcknowledged) {
  constexpr int kThreads = 8, kRows = 200;
  beginSession();
  takeRows();
  platform::install({.clock = std::make_shared<TwoDays>()});
  const auto sentEvents = [&] {
    const auto document = valueFromJSON(http->requests().back().body);
    const auto* arrays = document->as<Dictionary>()->find("BatchData")->as<Dictionary>();
    return static_cast<int>(arrays->find("Events")->as<Array>()->size());
  };
  Marbleway::trackEvent("today");

  std::atomic<int> recording = kThreads;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      isTomorrow = true;
      for (int row = 0; row < kRows; ++row) {
        Marbleway::trackEvent(std::to_string(thread * kRows + row));
      }
      --recording;
    });
  }
  int seen = 0;
  bool sawToday = false;
  do {
    batchData();
    if (http->waiting() == 0) continue;
    const int events = sentEvents();
    const bool seesToday = http->requests().back().body.find("\"today\"") != std::string::npos;
    EXPECT_GE(events, seen);  // no table is read as empty, or in part, because a writer is busy
    seen = events - (seesToday ? 1 : 0);
    sawToday = sawToday || seesToday;
    answer(200);
  } while (recording > 0);
  for (std::thread& thread : threads) thread.join();

  EXPECT_TRUE(sawToday);  // delivered, and gone
  const auto names = eventNames();
  EXPECT_THAT(names, SizeIs(kThreads * kRows));
  EXPECT_THAT(std::set<std::string>(names.begin(), names.end()), SizeIs(kThreads * kRows));
  EXPECT_THAT(names, Not(Contains("today")));
  batchData();
  EXPECT_EQ(sentEvents(), kThreads * kRows);
}

TEST_F(ResilienceTest, AKilledProcessLeavesEveryRowWhoseCallHadReturned) {
  constexpr std::array<std::chrono::microseconds, 8> kInstants{0us, 200us, 700us, 2ms,
                                                               4ms, 8ms,   16ms,  40ms};
  for (const std::size_t rows : {0U, 1U, 10U}) {  // 0: in the midst of the first start
    for (const auto instant : kInstants) {
      SCOPED_TRACE(std::to_string(instant.count()) + " us after row " + std::to_string(rows));
      const TemporaryDirectory documents;
      const auto start = [&] {
        configure({.documentsDirectory = documents.path()});
        Marbleway::initMarbleway("token");
      };
      EXPECT_EQ(tests::killWhileRecording(start, documents.path(), rows, instant), "");
    }
  }
}

// Leaves `left` of a resource to this process while it lives; of descriptors, those that are open
// and `left` more.
class Shortage {
 public:
  Shortage(__rlimit_resource resource, rlim_t left) : resource_(resource) {
    getrlimit(resource, &before_);
    rlimit less = before_;
    const int lowestFree = dup(STDERR_FILENO);
    close(lowestFree);
    less.rlim_cur = left + (resource == RLIMIT_NOFILE ? static_cast<rlim_t>(lowestFree) : 0);
    setrlimit(resource, &less);
  }
  Shortage(const Shortage&) = delete;
  Shortage& operator=(const Shortage&) = delete;
  ~Shortage() { setrlimit(resource_, &before_); }

 private:
  __rlimit_resource resource_;
  rlimit before_{};
};

TEST_F(ResilienceTest, WithoutRoomOrDescriptorsTheHostRunsOnAndRecordsOnceThereAreSome) {
  for (const auto& [resource, left] :
       {std::pair(RLIMIT_FSIZE, 0U), std::pair(RLIMIT_FSIZE, 5000U),
        std::pair(RLIMIT_FSIZE, 80000U), std::pair(RLIMIT_NOFILE, 0U), std::pair(RLIMIT_NOFILE, 1U),
        std::pair(RLIMIT_NOFILE, 2U)}) {
    for (const bool isFirstStart : {true, false}) {
      SCOPED_TRACE(std::to_string(left) + (resource == RLIMIT_FSIZE ? " bytes" : " descriptors") +
                   (isFirstStart ? " at the first start" : " later"));
      for (const auto& file : files()) fs::remove(directory.path() / file);
      const auto fault = faultIn([&, resource = resource, left = left] {
        if (!isFirstStart) Marbleway::initMarbleway("token");
        {
          const Shortage shortage(resource, left);
          Marbleway::initMarbleway("token");
          for (int row = 0; row < 20; ++row) Marbleway::trackEvent(std::string(2000, 'x'));
          batchData();
        }
        lines();
        Marbleway::initMarbleway("token");
        Marbleway::trackEvent("after");
        EXPECT_THAT(lines(), ElementsAre("Marbleway Message: Starting Marbleway SDK",
                                         "Marbleway Message: Event Tracked"));
        expectSoundStores();
        EXPECT_EQ(eventNames().back(), "after");
      });
      EXPECT_EQ(fault, "");
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
  const auto fault = faultIn([&] {
    fs::current_path(directory.path());
    configure({.documentsDirectory = "data/here",
               .bundleIdentifier = "org.example.app",
               .appVersion = "1.0"});
    setenv("LC_ALL", "xx_YY.UTF-8", 1);  // one that the system does not have
    (void)std::setlocale(LC_ALL, "de_DE.UTF-8");
    static Foreign foreign;
    std::locale::global(std::locale(std::locale(), &foreign));
    beginSession();
    fs::current_path("/");
    time->setWallClock(std::chrono::sys_days(std::chrono::year(2026) / 1 / 2) + 5ms);
    Marbleway::trackEvent("e", {{"Value", 1234567.5}, {"value", "12.5"}});
    const auto rows = query(directory.path() / "data/here" / DBFileName,
                            "SELECT EventAttributes, UTCTimeStamp FROM mrbw_v2_events");
    EXPECT_THAT(rows, ElementsAre(R"({"Value":1234567.5,"value":"12.5"})"
                                  "|2026-01-02 00:00:00.005"));
    query(directory.path() / "data/here" / DBFileName, "UPDATE mrbw_v2_events SET id = 1234567");
    batchData();
    EXPECT_THAT(http->requests().back().body, HasSubstr(R"("id":"1234567")"));
  });
  EXPECT_EQ(fault, "");
}

// The library on the real network, a handshake and a batch under way to `url`.
void beginTransfers(const fs::path& documents, const std::string& url) {
  configure({.documentsDirectory = documents,
             .developmentURL = url,
             .bundleIdentifier = "org.example.app",
             .appVersion = "1.0"});
  Marbleway::initMarbleway("token", {{"SDKEnvironment", 1}, {"PrivacyMode", false}});
  isConnectedToInternet = true;
  Marbleway::trackEvent("e");
  batchData();
}

// Each in a process of its own, with this system's own services: none is a fake.
class ResilienceDeathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // the end comes with work under way
    setenv("TSAN_OPTIONS", "die_after_fork=0:atexit_sleep_ms=0:report_thread_leaks=0", 1);
  }
  void TearDown() override {
    unsetenv("ASAN_OPTIONS");
    unsetenv("TSAN_OPTIONS");
  }
  // Leaves a process that has children, with 0 when all held.
  [[noreturn]] static void leave() { _exit(HasFailure() ? 1 : 0); }

  const TemporaryDirectory directory;
};

TEST_F(ResilienceDeathTest, TheProcessEndsAtOnceWithARequestInFlight) {
  const auto run = [this] {
    for (const char* scheme : {"http", "https"}) {  // to the latter nobody says a word
      for (const auto pause : {0ms, 1ms, 5ms, 20ms, 60ms}) {
        LoopbackServer server;
        server.answerWith(
            [](const tests::Received&) { return tests::Answer{.manner = Manner::never}; });
        const auto exit = tests::exitInFlight(
            [&] { beginTransfers(directory.path(), server.url(scheme)); }, pause);
        EXPECT_EQ(exit.fault, "") << scheme << " after " << pause.count() << " ms";
        EXPECT_LT(exit.took, 1s);  // 100 ms, and what a sanitizer and a busy machine add
      }
    }
    leave();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "");
}

TEST_F(ResilienceDeathTest, AChildOfAForkRecordsAndNeitherHangsNorSends) {
  const auto run = [this] {
    LoopbackServer server;
    server.answerWith([&](const tests::Received& request) {
      // The handshake is under way until the parent's last batch comes: one more beside the first.
      if (request.head.find("mobile/init") != std::string::npos) server.waitForRequests(3);
      return tests::Answer{.status = 500};
    });
    const auto start = [&] { beginTransfers(directory.path(), server.url()); };
    const auto exit = tests::forkWhileRecording(start, directory.path(), 5);
    EXPECT_EQ(exit.fault, "");
    EXPECT_LT(exit.took, 1s);
    EXPECT_THAT(server.requests(), SizeIs(3));
    leave();
  };
  EXPECT_EXIT(run(), ExitedWithCode(0), "");
}

}  // namespace
}  // namespace marbleway::testing
