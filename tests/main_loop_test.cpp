#include "tests/support/main_loop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Marbleway/platform/background_loop.h"
#include "Marbleway/platform/manual_loop.h"

namespace marbleway::platform {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

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

}  // namespace
}  // namespace marbleway::platform
