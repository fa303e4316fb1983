#include "Marbleway/platform/background_loop.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Marbleway/platform/linux/fatal_signals.h"
#include "Marbleway/platform/manual_loop.h"
#include "tests/support/shortage.h"

namespace marbleway::platform {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

bool comes(std::promise<void>& promise) {
  return promise.get_future().wait_for(30s) == std::future_status::ready;
}

/// True once everything posted to `loop` before has run.
bool runsPosted(MainLoop& loop) {
  const auto reached = std::make_shared<std::promise<void>>();
  loop.post([reached] { reached->set_value(); });
  return comes(*reached);
}

/// True once a timer of that period has fired `times` times.
bool fires(MainLoop& loop, int times, nanoseconds period = 0ns) {
  const auto reached = std::make_shared<std::promise<void>>();
  const auto timer = loop.repeat(period, [reached, times, count = 0]() mutable {
    if (++count == times) reached->set_value();
  });
  const bool isEnough = comes(*reached);
  timer->invalidate();
  return isEnough;
}

TEST(MainLoopTest, RunsPostedTasksInOrderOnOneThread) {
  const auto loop = makeBackgroundLoop();
  std::vector<int> ran[4];  // written by the loop's thread only
  {
    std::vector<std::jthread> posters;
    for (auto& order : ran) {
      posters.emplace_back([&] {
        for (int i = 0; i < 1000; ++i) {
          loop->post([&order, i] {
            order.push_back(i);
            if (i % 100 == 0) throw std::runtime_error("task");
          });
        }
      });
    }
  }
  ASSERT_TRUE(runsPosted(*loop));
  for (const auto& order : ran) EXPECT_TRUE(order.size() == 1000 && std::ranges::is_sorted(order));
}

TEST(MainLoopTest, PostedTasksDoNotStarveTimers) {
  const auto loop = makeBackgroundLoop();
  std::atomic<bool> isOver = false;
  std::function<void()> postAgain = [&] {
    if (!isOver) loop->post(postAgain);
  };
  loop->post(postAgain);
  EXPECT_TRUE(fires(*loop, 10, 1ms));
  isOver = true;
  EXPECT_TRUE(runsPosted(*loop));
}

TEST(MainLoopTest, MayBeDestroyedByItsOwnTask) {
  auto loop = makeBackgroundLoop();
  std::promise<void> letGo, dropped;
  std::shared_ptr<void> rest(nullptr, [&](void*) { dropped.set_value(); });
  std::atomic<bool> ran = false;
  loop->post([held = loop, gate = letGo.get_future().share()] { gate.wait(); });
  loop->post([&ran, rest] { ran = true; });
  const auto timer = loop->repeat(24h, [rest] {});
  rest.reset();
  loop.reset();  // the task that waits holds the last reference
  letGo.set_value();
  EXPECT_TRUE(comes(dropped));
  timer->invalidate();
  EXPECT_FALSE(ran);
}

TEST(MainLoopTest, WithoutAThreadATaskIsDropped) {
  const auto loop = makeBackgroundLoop();
  std::atomic<bool> ran = false;
  {
    const marbleway::testing::NoThreads none;
    loop->post([&] { ran = true; });
    loop->repeat(0ns, [&] { ran = true; })->invalidate();
  }
  EXPECT_TRUE(fires(*loop, 3));
  EXPECT_FALSE(ran);
}

TEST(ManualLoopTest, TimersKeepTheirGridUntilInvalidated) {
  steady_clock::time_point now{1h};
  const auto start = now;
  ManualLoop loop([&] { return now; });
  for (const nanoseconds period : {nanoseconds::min(), 0ns, 99'999ns}) {
    const auto timer = loop.repeat(period, [] {});
    EXPECT_EQ(loop.nextDue(), start + kMinPeriod);
    timer->invalidate();
  }
  loop.repeat(nanoseconds::max(), [] { FAIL(); });
  int count = 0;
  std::shared_ptr<Timer> timer;
  timer = loop.repeat(10ms, [&] {
    now += 12ms;                   // one more is missed while this one runs
    EXPECT_EQ(loop.runDue(), 0U);  // and none runs within another
    if (++count == 2) timer->invalidate();
    throw std::runtime_error("firing");
  });
  EXPECT_EQ(loop.runDue(), 0U);
  EXPECT_EQ(loop.nextDue(), start + 10ms);
  now = start + 35ms;
  EXPECT_EQ(loop.runDue(), 1U);
  EXPECT_EQ(loop.nextDue(), start + 50ms);
  now = start + 50ms;
  EXPECT_EQ(loop.runDue(), 1U);
  EXPECT_EQ(loop.nextDue(), std::nullopt);
  loop.post([&] { loop.post([&] { ++count; }); });
  EXPECT_EQ(loop.nextDue(), now);
  EXPECT_EQ(loop.runDue(), 2U);
  EXPECT_EQ(count, 3);
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

}  // namespace
}  // namespace marbleway::platform
