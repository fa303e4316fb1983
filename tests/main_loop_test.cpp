#include "Marbleway/platform/linux/main_loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <future>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Marbleway/platform/linux/fatal_signals.h"
#include "Marbleway/platform/manual_loop.h"
#include "Marbleway/platform/testing/fake_time.h"

namespace marbleway::platform {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using Promise = std::promise<void>;

bool comes(Promise& promise) {
  return promise.get_future().wait_for(30s) == std::future_status::ready;
}

/// True once everything posted to `loop` before has run.
bool settles(MainLoop& loop) {
  const auto reached = std::make_shared<Promise>();
  loop.post([reached] { reached->set_value(); });
  return comes(*reached);
}

/// True once a timer of that period has fired `times` times.
bool ticks(MainLoop& loop, int times, nanoseconds period = 0ns) {
  const auto reached = std::make_shared<Promise>();
  const auto timer = loop.repeat(period, [reached, times, count = 0]() mutable {
    if (++count == times) reached->set_value();
  });
  const bool enough = comes(*reached);
  timer->invalidate();
  return enough;
}

/// A manual loop that a thread of the test's pumps.
struct PumpedLoop {
  ManualLoop loop;
  std::jthread pump{[this](const std::stop_token& stop) {
    while (!stop.stop_requested()) loop.pumpFor(10ms);
  }};
};

std::shared_ptr<MainLoop> makePumpedLoop() {
  const auto pumped = std::make_shared<PumpedLoop>();
  return {pumped, &pumped->loop};
}

class EveryLoop : public ::testing::TestWithParam<std::shared_ptr<MainLoop> (*)()> {
 protected:
  std::shared_ptr<MainLoop> loop = GetParam()();
};
INSTANTIATE_TEST_SUITE_P(, EveryLoop, ::testing::Values(makeAsioLoop, makePumpedLoop),
                         [](const auto& test) { return test.index == 0 ? "asio" : "manual"; });

TEST_P(EveryLoop, RunsWhatIsPostedInOrderOnOneThreadWhateverThrows) {
  std::vector<int> ran[4], expected(1000);  // `ran` is written by the loop's thread only
  std::iota(expected.begin(), expected.end(), 0);
  const auto post = [&](std::vector<int>& order, int i) {
    loop->post([&order, i] {
      order.push_back(i);
      if (i % 100 == 0) throw std::runtime_error("task");
    });
  };
  {
    std::vector<std::jthread> posters;
    for (auto& order : ran) {
      posters.emplace_back([&] {
        for (const int i : expected) post(order, i);
      });
    }
  }
  ASSERT_TRUE(settles(*loop));
  for (const auto& order : ran) EXPECT_EQ(order, expected);
}

TEST_P(EveryLoop, ATimerFiresUntilItIsInvalidatedFromWithinAFiring) {
  const auto held = std::make_shared<int>();
  std::promise<std::shared_ptr<Timer>> handle;
  int count = 0;  // the loop's thread only, until it has settled
  handle.set_value(loop->repeat(1ms, [&, held, self = handle.get_future().share()] {
    if (++count < 3) throw std::runtime_error("firing");
    self.get()->invalidate();
  }));
  ASSERT_TRUE(ticks(*loop, 10, 1ms));
  ASSERT_TRUE(settles(*loop));
  EXPECT_EQ(count, 3);
  EXPECT_EQ(held.use_count(), 1) << "a timer that holds its own handle is let go";
}

TEST_P(EveryLoop, NoFiringBeginsAfterAnInvalidationFromAnotherThread) {
  for (int round = 0; round < 50; ++round) {
    std::atomic<int> count = 0;
    const auto timer = loop->repeat(0ns, [&] { ++count; });
    ASSERT_TRUE(ticks(*loop, 3));
    timer->invalidate();
    ASSERT_TRUE(settles(*loop));  // a firing that had begun has ended
    const int last = count;
    ASSERT_GT(last, 0);
    ASSERT_TRUE(ticks(*loop, 5));
    ASSERT_EQ(count, last);
  }
}

TEST_P(EveryLoop, PeriodsAreClampedAtBothEnds) {
  for (const nanoseconds period : {nanoseconds::min(), -1ns, 0ns, 99'999ns}) {
    SCOPED_TRACE(period.count());
    const auto start = steady_clock::now();
    ASSERT_TRUE(ticks(*loop, 50, period));
    EXPECT_GE(steady_clock::now() - start, 50 * kShortestPeriod);
  }
  std::atomic<int> count = 0;
  for (const nanoseconds period : {nanoseconds::max(), nanoseconds(24h)}) {
    loop->repeat(period, [&] { ++count; });
  }
  EXPECT_TRUE(ticks(*loop, 20));
  EXPECT_TRUE(settles(*loop));
  EXPECT_EQ(count, 0);
}

TEST_P(EveryLoop, HoldsAPendingTimerUntilItsInvalidationOrItsOwnEnd) {
  const auto held = std::make_shared<int>();
  for (int i = 0; i < 1000; ++i) loop->repeat(24h, [held] {})->invalidate();
  ASSERT_TRUE(settles(*loop));
  EXPECT_EQ(held.use_count(), 1);
  const auto timer = loop->repeat(24h, [held] {});
  loop->repeat(24h, [held] {});
  ASSERT_TRUE(settles(*loop));
  EXPECT_EQ(held.use_count(), 3);
  loop.reset();
  EXPECT_EQ(held.use_count(), 1);
  timer->invalidate();
}

TEST(ManualLoopTest, ALateFiringIsNotMadeUpForAndTheGridStays) {
  steady_clock::time_point now{1h};
  const auto start = now;
  ManualLoop loop([&] { return now; });
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
  EXPECT_EQ(loop.nextDue(), start + 50ms);
  timer->invalidate();
  EXPECT_EQ(loop.nextDue(), std::nullopt);
  loop.post([&] { loop.post([&] { ++count; }); });
  EXPECT_EQ(loop.nextDue(), now);
  EXPECT_EQ(loop.runDue(), 2U);
  EXPECT_EQ(count, 2);
}

TEST(ManualLoopTest, PumpingWakesForTheWorkOfOtherThreadsUntilTheTimeIsOver) {
  for (const bool isTimer : {false, true}) {
    ManualLoop loop;
    std::atomic<bool> ran = false;
    std::jthread other;
    const auto work = [&] {
      isTimer ? void(loop.repeat(1ms, [&] { ran = true; })) : loop.post([&] { ran = true; });
    };
    loop.post([&] { other = std::jthread(work); });
    const auto start = steady_clock::now();
    EXPECT_TRUE(loop.pumpFor(400ms));
    EXPECT_GE(steady_clock::now() - start, 400ms);
    EXPECT_TRUE(ran);
  }
}

TEST(FakeTimeTest, FiresWhatFallsDueInOrderEachAtItsTime) {
  testing::FakeTime time;
  std::vector<std::pair<char, nanoseconds>> firings;
  const auto note = [&, start = time.now()](char name) {
    return [&, start, name] { firings.emplace_back(name, time.now() - start); };
  };
  time.mainLoop()->repeat(60s, note('L'));
  time.mainLoop()->repeat(30s, note('S'));
  time.mainLoop()->post(note('P'));
  time.advance(90s);
  EXPECT_THAT(firings, ElementsAre(std::pair('P', 0ns), std::pair('S', 30s), std::pair('L', 60s),
                                   std::pair('S', 60s), std::pair('S', 90s)));
}

TEST(AsioLoopTest, BlocksAllButFatalSignalsAndLeavesTheCallersMask) {
  sigset_t before, after, inLoop;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  const auto loop = makeAsioLoop();
  loop->post([&] { pthread_sigmask(SIG_SETMASK, nullptr, &inLoop); });
  ASSERT_TRUE(settles(*loop));
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    const bool isTheSystems = signal == SIGKILL || signal == SIGSTOP ||  // or the C library's
                              (signal >= 32 && signal < SIGRTMIN);
    EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
    const bool isFatal = std::ranges::count(kFatalSignals, signal) > 0;
    EXPECT_TRUE(isTheSystems || sigismember(&inLoop, signal) == (isFatal ? 0 : 1)) << signal;
  }
}

TEST(AsioLoopTest, MayBeDestroyedByItsOwnTaskAndDropsTheRest) {
  auto loop = makeAsioLoop();
  Promise letGo, dropped;
  std::shared_ptr<void> rest(nullptr, [&](void*) { dropped.set_value(); });
  std::atomic<bool> ran = false;
  loop->post([held = loop, gate = letGo.get_future().share()] { gate.wait(); });
  loop->post([&ran, rest] { ran = true; });
  loop->repeat(24h, [rest] {});
  rest.reset();
  loop.reset();  // the task that waits holds the last reference
  letGo.set_value();
  EXPECT_TRUE(comes(dropped));
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
  loop->repeat(0ns, [&] { ran = true; });
  ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
  EXPECT_TRUE(ticks(*loop, 3));
  EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace marbleway::platform
