#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <clocale>
#include <cstdlib>
#include <locale>
#include <set>
#include <thread>

#include "Marbleway/upload/batch.h"
#include "tests/support/failing_vfs.h"
#include "tests/support/fixture.h"
#include "tests/support/loopback_server.h"
#include "tests/support/process_ends.h"
#include "tests/support/shortage.h"

namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using tests::LoopbackServer;
using tests::Rounds;

constexpr auto kExitTime = 1s;  // 100 ms, and what a sanitizer and a busy machine add

class ResilienceTest : public MarblewayTest {
 protected:
  ResilienceTest() { time->setWallClock(std::chrono::system_clock::now()); }  // as SQLite's

  // The fault of a child that does `work`, expectations included.
  static tests::Fault faultIn(const std::function<void()>& work) {
    return tests::faultOfChild([&] {
      work();
      return HasFailure() ? "an expectation failed" : "";
    });
  }
};

TEST_F(ResilienceTest, EightThreadsLoseNoRowWhileBatchesAreRead) {
  constexpr std::size_t kThreads = 8, kRows = 100;
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

TEST_F(ResilienceTest, AKilledProcessLeavesEveryRowWhoseCallReturned) {
  Rounds rounds{.directory = directory.path(), .count = 10};
  EXPECT_EQ(tests::killFirstStart(rounds), "");
  EXPECT_EQ(tests::killRecording(rounds), "");
}

int lowestFreeDescriptor() {
  const int descriptor = dup(STDERR_FILENO);
  close(descriptor);
  return descriptor;
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
      const auto fault = faultIn([&, resource = resource, left = left] {
        if (!isFirstStart) Marbleway::initMarbleway("token");
        {
          const int open = resource == RLIMIT_NOFILE ? lowestFreeDescriptor() : 0;
          const Shortage shortage(resource, left + static_cast<rlim_t>(open));
          Marbleway::initMarbleway("token");
          for (int row = 0; row < 20; ++row) Marbleway::trackEvent(std::string(2000, 'x'));
          batchData();
        }
        lines();
        Marbleway::initMarbleway("token");
        Marbleway::trackEvent("after");
        EXPECT_THAT(lines(), ElementsAre("Marbleway Message: Starting Marbleway SDK",
                                         "Marbleway Message: Event Tracked"));
        EXPECT_EQ(tests::faultOfStores(directory.path()), "");
        EXPECT_EQ(tests::eventsIn(directory.path()).back(), "after");
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
  EXPECT_EQ(fault, "");
}

TEST_F(ResilienceTest, AForkedChildCountsItsOwnRequestsOnly) {
  beginSession();
  Marbleway::trackEvent("e");
  batchData();
  EXPECT_EQ(faultIn([&] {
              EXPECT_TRUE(waitUntilIdle(0ms));
              EXPECT_TRUE(http->answer(
                  {.status = 200, .body = {}}));  // the parent's, whose count stays there
              Marbleway::initMarbleway("token");
              EXPECT_FALSE(waitUntilIdle(0ms));
              answer(200);
              EXPECT_TRUE(waitUntilIdle(0ms));
            }),
            "");
}

// As a signal handler does that interrupts a thread which holds locks.
TEST_F(ResilienceTest, AForkAmidAnOperationNeverWaitsForItself) {
  EXPECT_EQ(faultIn([&] {
              beginSession();
              sqlite3* other = nullptr;
              sqlite3_open(storePath().c_str(), &other);
              sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
              tests::FailingVfs vfs;
              vfs.onNap([&] {
                tests::Child child([](int /*reports*/) { Marbleway::trackEvent("e"); });
                EXPECT_EQ(child.wait(), "");
                sqlite3_close(std::exchange(other, nullptr));
              });
              Marbleway::trackEvent("e");
              EXPECT_EQ(other, nullptr);
              EXPECT_THAT(tests::eventsIn(directory.path()), ElementsAre("e"));
            }),
            "");
}

// With this system's own services: none is a fake.
class ProcessEndTest : public ::testing::Test {
 protected:
  const TemporaryDirectory directory;
};

TEST_F(ProcessEndTest, TheProcessEndsAtOnceWithRequestsInFlight) {
  LoopbackServer silent;
  silent.answerWith(
      [](const tests::Received&) { return tests::Answer{.manner = tests::Manner::never}; });
  for (const char* scheme : {"http", "https"}) {  // TLS gets no reply to its greeting
    Rounds rounds{.directory = directory.path(), .count = 5};
    const auto begin = [&](const fs::path& own) { tests::startLibrary(own, silent.url(scheme)); };
    EXPECT_EQ(tests::exitInFlight(rounds, begin, kExitTime), "") << scheme;
  }
}

TEST_F(ProcessEndTest, AChildOfAForkStartsItselfAndNeverHangs) {
  Rounds rounds{.directory = directory.path()};
  EXPECT_EQ(tests::forkRecording(rounds, kExitTime), "");
}

TEST_F(ProcessEndTest, AForkedWorkerThatStartsItselfCapturesItsCrash) {
  const tests::RefusingPort nobody;
  const auto start = [&] { tests::startLibrary(directory.path(), nobody.url()); };
  tests::Child parent([&](int reports) {
    start();
    tests::Child worker([&](int /*reports*/) {
      start();
      Marbleway::startSession();
      std::abort();
    });
    const tests::Fault end = worker.wait();
    if (write(reports, end.data(), end.size()) < 0) _exit(1);
  });
  EXPECT_EQ(parent.reported(100), "ended by signal 6");
  EXPECT_EQ(parent.wait(), "");
  EXPECT_THAT(query(directory.path() / DBFileName,
                    "SELECT substr(CrashDetails, 1, 18) FROM mrbw_v2_crashes"),
              ElementsAre("Signal 6 (SIGABRT)"));
}

TEST_F(ProcessEndTest, AForkBeforeTheStartLeavesItsTimers) {
  LoopbackServer server;
  server.answerWith([](const tests::Received&) {
    return tests::Answer{.body = R"({"Data":{"Config":{"SessionTimeout":0}}})"};
  });
  const tests::Child process([&](int /*reports*/) {
    configure({.documentsDirectory = directory.path()});
    Marbleway::trackDeepLink("app://open?mrbw_dlid=1");
    tests::Child([](int /*reports*/) {}).wait();
    tests::startLibrary(directory.path(), server.url());
    pause();
  });
  // The handshake, and a batch when the session's timer ends it.
  EXPECT_THAT(server.waitForRequests(2), SizeIs(2));
}

}  // namespace
}  // namespace marbleway::testing
