#include "platform/linux/main_loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>

#include <atomic>
#include <csignal>
#include <future>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "platform/manual_loop.h"
#include "platform/testing/fake_time.h"

namespace marbleway::platform {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;

constexpr auto kLong = 30s;  // more than any of this ever takes

/// True once everything posted to `loop` before has run.
bool settles(MainLoop& loop) {
  const auto reached = std::make_shared<std::promise<void>>();
  auto settled = reached->get_future();
  loop.post([reached] { reached->set_value(); });
  return settled.wait_for(kLong) == std::future_status::ready;
}

/// True once a timer of the shortest period has fired `times` times.
bool ticks(MainLoop& loop, int times) {
  const auto reached = std::make_shared<std::promise<void>>();
  auto ticked = reached->get_future();
  const auto timer = loop.repeat(0ns, [reached, times, count = 0]() mutable {
    if (++count == times) reached->set_value();
  });
  const bool enough = ticked.wait_for(kLong) == std::future_status::ready;
  timer->invalidate();
  return enough;
}

/// A manual loop that a thread of the test's pumps.
class PumpedLoop : public ManualLoop {
 public:
  PumpedLoop() = default;
  PumpedLoop(const PumpedLoop&) = delete;
  PumpedLoop& operator=(const PumpedLoop&) = delete;
  ~PumpedLoop() override {
    post([this] { stopped_ = true; });
  }

 private:
  bool stopped_ = false;
  std::jthread pump_{[this] {
    while (!stopped_) pumpFor(10ms);
  }};
};

struct Kind {
  const char* name;
  std::shared_ptr<MainLoop> (*make)();
};

class EveryLoop : public ::testing::TestWithParam<Kind> {
 protected:
  std::shared_ptr<MainLoop> loop = GetParam().make();
};
INSTANTIATE_TEST_SUITE_P(, EveryLoop,
                         ::testing::Values(Kind{"asio", makeAsioLoop},
                                           Kind{"manual",
                                                []() -> std::shared_ptr<MainLoop> {
                                                  return std::make_shared<PumpedLoop>();
                                                }}),
                         [](const auto& test) { return test.param.name; });

TEST_P(EveryLoop, RunsWhatIsPostedInOrderOnOneThreadWhateverThrows) {
  constexpr int kPosters = 4, kEach = 1000;
  std::vector<std::vector<int>> ran(kPosters);  // written by the loop's thread only
  {
    std::vector<std::jthread> posters;
    posters.reserve(kPosters);
    for (auto& order : ran) {
      posters.emplace_back([&] {
        for (int i = 0; i < kEach; ++i) {
          loop->post([&order, i] {
            order.push_back(i);
            if (i % 100 == 0) throw std::runtime_error("task");
          });
        }
      });
    }
  }
  ASSERT_TRUE(settles(*loop));
  std::vector<int> expected(kEach);
  std::iota(expected.begin(), expected.end(), 0);
  for (const auto& order : ran) EXPECT_EQ(order, expected);
}

TEST_P(EveryLoop, ATimerFiresUntilItIsInvalidatedFromWithinAFiring) {
  std::promise<std::shared_ptr<Timer>> handle;
  auto shared = handle.get_future().share();
  int count = 0;  // the loop's thread only, until it has settled
  std::promise<void> third;
  handle.set_value(loop->repeat(1ms, [&] {
    if (++count < 3) throw std::runtime_error("firing");
    shared.get()->invalidate();
    third.set_value();
  }));
  ASSERT_EQ(third.get_future().wait_for(kLong), std::future_status::ready);
  EXPECT_TRUE(ticks(*loop, 30));
  EXPECT_TRUE(settles(*loop));
  EXPECT_EQ(count, 3);
}

TEST_P(EveryLoop, NoFiringBeginsAfterAnInvalidationFromAnotherThread) {
  for (int round = 0; round < 50; ++round) {
    std::atomic<int> count = 0;
    const auto timer = loop->repeat(0ns, [&] { ++count; });
    ASSERT_TRUE(ticks(*loop, 3));
    timer->invalidate();
    timer->invalidate();
    ASSERT_TRUE(settles(*loop));  // a firing that had begun has ended
    const int last = count;
    ASSERT_GT(last, 0);
    ASSERT_TRUE(ticks(*loop, 5));
    ASSERT_EQ(count, last);
  }
}

TEST_P(EveryLoop, PeriodsAreClampedAtBothEnds) {
  for (const nanoseconds period : {nanoseconds::min(), -1ns, 0ns, 1ns, 99'999ns}) {
    SCOPED_TRACE(period.count());
    std::vector<steady_clock::time_point> firings;
    std::promise<void> enough;
    const auto timer = loop->repeat(period, [&] {
      if (firings.size() < 50) firings.push_back(steady_clock::now());
      if (firings.size() == 50) {
        firings.emplace_back();
        enough.set_value();
      }
    });
    ASSERT_EQ(enough.get_future().wait_for(kLong), std::future_status::ready);
    timer->invalidate();
    ASSERT_TRUE(settles(*loop));
    EXPECT_GE(firings[49] - firings[0], 48 * kShortestPeriod);
  }
  std::atomic<int> count = 0;
  for (const nanoseconds period :
       {nanoseconds::max(), nanoseconds::max() - 1ns, nanoseconds(24h)}) {
    loop->repeat(period, [&] { ++count; });
  }
  EXPECT_TRUE(ticks(*loop, 20));
  EXPECT_TRUE(settles(*loop));
  EXPECT_EQ(count, 0);
}

TEST_P(EveryLoop, AHundredThousandInvalidatedTimersLeaveNothingBehind) {
  const auto held = std::make_shared<int>();
  ASSERT_TRUE(ticks(*loop, 1));
  const auto before = mallinfo2().uordblks;
  for (int i = 0; i < 100'000; ++i) {
    loop->repeat(24h * 365, [held] {})->invalidate();
    if (i % 1000 == 0) {
      ASSERT_TRUE(settles(*loop));
    }
  }
  for (int i = 0; i < 10'000; ++i) {
    loop->post([held, loop = loop.get()] {
      const auto self = std::make_shared<std::shared_ptr<Timer>>();
      *self = loop->repeat(0ns, [held, self] { (*self)->invalidate(); });
    });
  }
  ASSERT_TRUE(settles(*loop));
  ASSERT_TRUE(ticks(*loop, 5));
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_LT(mallinfo2().uordblks, before + (1U << 20U));
}

TEST_P(EveryLoop, AHandleOutlivesItsLoopAndALoopItsHandles) {
  const auto held = std::make_shared<int>();
  loop->repeat(24h, [held] {});
  const auto timer = loop->repeat(24h, [held] {});
  ASSERT_TRUE(settles(*loop));
  EXPECT_EQ(held.use_count(), 3);
  loop.reset();
  EXPECT_EQ(held.use_count(), 1);
  timer->invalidate();
}

// The two clocks of a manual loop.

TEST(ManualLoopTest, ALateFiringIsNotMadeUpForAndTheGridStays) {
  steady_clock::time_point now{1h};
  const auto start = now;
  ManualLoop loop([&] { return now; });
  EXPECT_EQ(loop.nextDue(), std::nullopt);
  int count = 0;
  const auto timer = loop.repeat(10ms, [&] {
    ++count;
    now += 12ms;                   // one more is missed while this one runs
    EXPECT_EQ(loop.runDue(), 0U);  // and none runs within another
  });
  EXPECT_EQ(loop.runDue(), 0U);
  EXPECT_EQ(loop.nextDue(), start + 10ms);
  now = start + 35ms;
  EXPECT_EQ(loop.runDue(), 1U);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(loop.nextDue(), start + 50ms);
  timer->invalidate();
  EXPECT_EQ(loop.nextDue(), std::nullopt);
  loop.post([&] { loop.post([&] { ++count; }); });
  EXPECT_EQ(loop.nextDue(), now);
  EXPECT_EQ(loop.runDue(), 2U);
  EXPECT_EQ(count, 2);
}

TEST(ManualLoopTest, PumpingWakesForTheWorkOfOtherThreadsUntilTheTimeIsOver) {
  using Work = void (*)(MainLoop&, std::function<void()>);
  const Work kWorks[] = {
      [](MainLoop& loop, std::function<void()> task) { loop.post(std::move(task)); },
      [](MainLoop& loop, std::function<void()> task) { loop.repeat(1ms, std::move(task)); },
  };
  for (const Work work : kWorks) {
    ManualLoop loop;
    EXPECT_FALSE(loop.pumpFor(std::chrono::milliseconds::min()));
    std::promise<void> pumping;
    std::atomic<bool> ran = false;
    std::jthread other([&] {
      pumping.get_future().wait();
      work(loop, [&] { ran = true; });
    });
    loop.post([&] { pumping.set_value(); });
    const auto start = steady_clock::now();
    EXPECT_TRUE(loop.pumpFor(400ms));
    EXPECT_GE(steady_clock::now() - start, 400ms);
    EXPECT_TRUE(ran);
  }
}

TEST(FakeTimeTest, FiresWhatFallsDueInOrderEachAtItsTime) {
  testing::FakeTime time;
  const auto start = time.now();
  EXPECT_EQ(start, std::chrono::sys_days(std::chrono::year(2026) / 1 / 2));
  std::vector<std::pair<char, nanoseconds>> firings;
  const auto note = [&](char name) {
    return [&, name] { firings.emplace_back(name, time.now() - start); };
  };
  const auto long_ = time.mainLoop()->repeat(60s, note('L'));
  const auto short_ = time.mainLoop()->repeat(30s, note('S'));
  time.mainLoop()->post(note('P'));
  time.advance(29s);
  EXPECT_THAT(firings, ElementsAre(std::pair('P', 0ns)));
  time.advance(61s);
  EXPECT_THAT(firings, ElementsAre(std::pair('P', 0ns), std::pair('S', 30s), std::pair('L', 60s),
                                   std::pair('S', 60s), std::pair('S', 90s)));
  time.setWallClock(start - 24h * 365);
  firings.clear();
  time.advance(30s);
  EXPECT_THAT(firings,
              ElementsAre(std::pair('L', 30s - 24h * 365), std::pair('S', 30s - 24h * 365)));
}

// The loop with a thread of its own.

TEST(AsioLoopTest, BlocksEverySignalAndLeavesTheCallersMask) {
  sigset_t before, after, inLoop;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  const auto loop = makeAsioLoop();
  loop->post([&] { pthread_sigmask(SIG_SETMASK, nullptr, &inLoop); });
  ASSERT_TRUE(settles(*loop));
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    SCOPED_TRACE(signal);
    EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal));
    const bool blockable = signal != SIGKILL && signal != SIGSTOP &&
                           !(signal >= 32 && signal < SIGRTMIN);  // the C library's own
    EXPECT_TRUE(!blockable || sigismember(&inLoop, signal) == 1);
  }
}

TEST(AsioLoopTest, MayBeDestroyedByItsOwnTaskAndDropsTheRest) {
  auto loop = makeAsioLoop();
  std::promise<void> letGo, dropped;
  std::shared_ptr<void> rest(nullptr, [&](void*) { dropped.set_value(); });
  std::atomic<bool> ran = false;
  loop->post([held = loop, gate = letGo.get_future().share()] { gate.wait(); });
  loop->post([&ran, rest] { ran = true; });
  loop->repeat(24h, [rest] {});
  rest.reset();
  loop.reset();  // the task that waits holds the last reference
  letGo.set_value();
  EXPECT_EQ(dropped.get_future().wait_for(kLong), std::future_status::ready);
  EXPECT_FALSE(ran);
}

TEST(AsioLoopTest, WithoutAThreadToBeHadATaskIsDroppedAndTheNextOneTriesAgain) {
  pthread_attr_t usual, tooLarge;
  ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
  ASSERT_EQ(pthread_attr_init(&tooLarge), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&tooLarge, std::size_t{1} << 60U), 0);
  const auto loop = makeAsioLoop();
  std::atomic<bool> ran = false;
  ASSERT_EQ(pthread_setattr_default_np(&tooLarge), 0);
  loop->post([&] { ran = true; });
  const auto timer = loop->repeat(0ns, [&] { ran = true; });
  ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
  EXPECT_TRUE(ticks(*loop, 3));
  EXPECT_FALSE(ran);
  timer->invalidate();
}

}  // namespace
}  // namespace marbleway::platform
