#include "Marbleway/platform/manual_loop.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/schedule.h"

namespace marbleway::platform {
namespace {

using Task = std::function<void()>;

}  // namespace

struct ManualLoop::Repeating {
  SteadyTime due;  // `kNever` while it fires
  std::chrono::nanoseconds period;
  std::shared_ptr<const Task> task;
};

/// Each access is a `ForkSection`, but for the wait. A fork during a wait may leave the mutex and
/// the condition variable in use in the child, which creates new ones.
struct ManualLoop::Queue {
  std::unique_lock<std::mutex> lock() {
    if (process.exchange(forkCount()) != forkCount()) {
      std::construct_at(&mutex);
      std::construct_at(&changed);
    }
    return std::unique_lock(mutex);
  }
  /// The timer due first, of equals the oldest. `mutex` is held.
  auto first() {
    return std::min_element(timers.begin(), timers.end(), [](const auto& one, const auto& other) {
      return one.second.due < other.second.due;
    });
  }
  /// Its time, or `kNever`. `mutex` is held.
  SteadyTime firstDue() {
    const auto timer = first();
    return timer == timers.end() ? kNever : timer->second.due;
  }

  std::atomic<int> process = forkCount();
  std::mutex mutex;  // guards the rest
  std::condition_variable changed;
  std::deque<std::pair<SteadyTime, Task>> posted;  // each with the time of its posting
  std::map<std::uint64_t, Repeating> timers;       // by their order of making
  std::uint64_t made = 0;
  bool isStopped = false;
};

struct ManualLoop::Handle : Timer {
  Handle(std::weak_ptr<Queue> queue, std::uint64_t id) : queue_(std::move(queue)), id_(id) {}

  void invalidate() override {
    const auto queue = queue_.lock();
    if (!queue) return;
    std::map<std::uint64_t, Repeating>::node_type
        removed;  // destroyed unlocked, with what it holds
    const ForkSection section;
    const auto lock = queue->lock();
    removed = queue->timers.extract(id_);
  }

 private:
  std::weak_ptr<Queue> queue_;
  std::uint64_t id_;
};

ManualLoop::ManualLoop(std::function<Time()> now)
    : now_(std::move(now)), queue_(std::make_shared<Queue>()) {}

void ManualLoop::post(Task task) {
  const Time now = now_();
  const ForkSection section;
  const auto lock = queue_->lock();
  queue_->posted.emplace_back(now, std::move(task));
  queue_->changed.notify_all();
}

std::shared_ptr<Timer> ManualLoop::repeat(std::chrono::nanoseconds period, Task task) {
  const Time now = now_();
  Repeating timer{nextFiring(now, period, now), period,
                  std::make_shared<const Task>(std::move(task))};
  const ForkSection section;
  const auto lock = queue_->lock();
  const auto id = queue_->made++;
  auto handle = std::make_shared<Handle>(queue_, id);
  queue_->timers.emplace(id, std::move(timer));
  queue_->changed.notify_all();
  return handle;
}

std::size_t ManualLoop::runDue() {
  const Time limit = now_();
  std::size_t count = 0;
  while (runOne(limit)) ++count;
  return count;
}

std::optional<ManualLoop::Time> ManualLoop::nextDue() {
  const Time now = now_();
  const ForkSection section;
  const auto lock = queue_->lock();
  if (!queue_->posted.empty()) return now;
  const Time due = queue_->firstDue();
  return due == kNever ? std::nullopt : std::optional(due);
}

bool ManualLoop::pumpFor(std::chrono::milliseconds atMost) {
  const Time start = std::chrono::steady_clock::now();
  const auto longest = std::chrono::floor<std::chrono::milliseconds>(kNever - start);
  const Time end = start + std::clamp(atMost, std::chrono::milliseconds(0), longest);
  bool ran = runDue() > 0;
  while (std::chrono::steady_clock::now() < end) {
    if (runOne(now_())) {
      ran = true;
    } else {
      waitForWork(end);
    }
  }
  return ran;
}

void ManualLoop::run() {
  const auto isStopped = [this] {
    const ForkSection section;
    const auto lock = queue_->lock();
    return queue_->isStopped;
  };
  while (!isStopped()) {
    if (!runOne(now_())) waitForWork(kNever);
  }
}

void ManualLoop::stop() {
  const ForkSection section;
  const auto lock = queue_->lock();
  queue_->isStopped = true;
  queue_->changed.notify_all();
}

/// Runs what is next: the posted task that has waited longest, or the timer that was due before it.
/// Posted tasks that go on posting so never hold up a timer.
bool ManualLoop::runOne(Time limit) {
  Task posted;
  std::optional<std::pair<std::uint64_t, Repeating>> fired;
  {
    const ForkSection section;
    const auto lock = queue_->lock();
    auto& waiting = queue_->posted;
    const auto timer = queue_->first();
    const Time due = timer != queue_->timers.end() ? timer->second.due : kNever;
    if (due <= limit && due != kNever && (waiting.empty() || due < waiting.front().first)) {
      fired = *timer;
      timer->second.due = kNever;
    } else if (!waiting.empty()) {
      posted = std::move(waiting.front().second);
      waiting.pop_front();
    }
  }
  if (posted) catchAll(posted);
  if (fired) fire(fired->first, fired->second);
  return posted || fired;
}

void ManualLoop::fire(std::uint64_t id, const Repeating& timer) {
  catchAll(*timer.task);
  const Time next = nextFiring(timer.due, timer.period, now_());
  const ForkSection section;
  const auto lock = queue_->lock();
  const auto valid = queue_->timers.find(id);
  if (valid != queue_->timers.end()) valid->second.due = next;
}

/// Waits until there may be something to run, at most until `end` of the steady clock.
void ManualLoop::waitForWork(Time end) {
  const Time now = now_();
  std::unique_lock<std::mutex> lock;
  Time until = end;
  {
    const ForkSection section;
    lock = queue_->lock();
    if (!queue_->posted.empty() || queue_->isStopped) return;
    const auto away = queue_->firstDue() - now;
    const Time realNow = std::chrono::steady_clock::now();
    if (away < end - realNow) until = realNow + away;
  }
  queue_->changed.wait_until(lock, until);
}

}  // namespace marbleway::platform
