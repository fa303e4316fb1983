#include "Marbleway/platform/manual_loop.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/schedule.h"

namespace marbleway::platform {
namespace {

using Task = std::function<void()>;

struct Repeating {
  SteadyTime due;  // `kNever` while it fires
  std::chrono::nanoseconds period;
  std::shared_ptr<const Task> task;
};

}  // namespace

struct ManualLoop::Queue {
  /// The timer due first, of equals the oldest. `lock` is held.
  auto first() {
    return std::min_element(timers.begin(), timers.end(), [](const auto& one, const auto& other) {
      return one.second.due < other.second.due;
    });
  }
  /// Its time, or `kNever`. `lock` is held.
  SteadyTime firstDue() {
    const auto timer = first();
    return timer == timers.end() ? kNever : timer->second.due;
  }

  std::mutex lock;
  std::condition_variable changed;
  std::deque<Task> posted;
  std::map<std::uint64_t, Repeating> timers;  // by their order of making
  std::uint64_t made = 0;
};

struct ManualLoop::Handle : Timer {
  Handle(std::weak_ptr<Queue> queue, std::uint64_t id) : queue_(std::move(queue)), id_(id) {}

  void invalidate() override {
    const auto queue = queue_.lock();
    if (!queue) return;
    std::unique_lock lock(queue->lock);
    const auto removed = queue->timers.extract(id_);
    lock.unlock();  // what the task holds is let go of unlocked
  }

 private:
  std::weak_ptr<Queue> queue_;
  std::uint64_t id_;
};

ManualLoop::ManualLoop(std::function<Time()> now)
    : now_(std::move(now)), queue_(std::make_shared<Queue>()) {}

void ManualLoop::post(Task task) {
  const std::scoped_lock lock(queue_->lock);
  queue_->posted.push_back(std::move(task));
  queue_->changed.notify_all();
}

std::shared_ptr<Timer> ManualLoop::repeat(std::chrono::nanoseconds period, Task task) {
  const Time now = now_();
  Repeating timer{nextFiring(now, period, now), period,
                  std::make_shared<const Task>(std::move(task))};
  const std::scoped_lock lock(queue_->lock);
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
  const std::scoped_lock lock(queue_->lock);
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

/// Runs the next task: a posted one, or else the first timer that is due at `limit`.
bool ManualLoop::runOne(Time limit) {
  std::unique_lock lock(queue_->lock);
  if (!queue_->posted.empty()) {
    const Task task = std::move(queue_->posted.front());
    queue_->posted.pop_front();
    lock.unlock();
    catchAll(task);
    return true;
  }
  const auto timer = queue_->first();
  if (timer == queue_->timers.end() || timer->second.due > limit) return false;

  const auto [id, fired] = *timer;
  timer->second.due = kNever;
  lock.unlock();
  catchAll(*fired.task);
  const Time next = nextFiring(fired.due, fired.period, now_());
  lock.lock();
  if (const auto valid = queue_->timers.find(id); valid != queue_->timers.end()) {
    valid->second.due = next;
  }
  return true;
}

/// Waits until there may be something to run, at most until `end` of the steady clock.
void ManualLoop::waitForWork(Time end) {
  const Time now = now_();
  std::unique_lock lock(queue_->lock);
  if (!queue_->posted.empty()) return;
  const auto away = queue_->firstDue() - now;
  const Time realNow = std::chrono::steady_clock::now();
  queue_->changed.wait_until(lock, away < end - realNow ? realNow + away : end);
}

}  // namespace marbleway::platform
