#include "Marbleway/platform/linux/main_loop.h"

#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <mutex>
#include <thread>
#include <utility>

#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/linux/background_thread.h"
#include "Marbleway/platform/schedule.h"

namespace marbleway::platform {
namespace {

using Task = std::function<void()>;

/// A timer that waits in the loop and belongs to its wait: gone once that ends without another.
class Repeating : public std::enable_shared_from_this<Repeating> {
 public:
  Repeating(asio::io_context& io, std::chrono::nanoseconds period, Task task)
      : timer_(io), period_(period), task_(std::make_shared<const Task>(std::move(task))) {}

  /// Waits for the next firing, if one is to come.
  void arm() {
    const std::scoped_lock lock(mutex_);
    due_ = nextFiring(due_, period_, std::chrono::steady_clock::now());
    if (task_ == nullptr || due_ == kNever) return;
    timer_.expires_at(due_);
    timer_.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
      if (!cancelled) self->fire();
    });
  }

  void invalidate() {
    std::shared_ptr<const Task> dropped;  // what it holds is let go of unlocked
    const std::scoped_lock lock(mutex_);
    dropped.swap(task_);
    timer_.cancel();
  }

 private:
  void fire() {
    std::unique_lock lock(mutex_);
    const auto task = task_;
    lock.unlock();
    if (task) catchAll(*task);
    catchAll([this] { arm(); });
  }

  std::mutex mutex_;  // guards the rest
  asio::steady_timer timer_;
  const std::chrono::nanoseconds period_;
  SteadyTime due_ = std::chrono::steady_clock::now();
  std::shared_ptr<const Task> task_;  // null once invalidated
};

/// What the caller of `repeat` holds. It keeps neither the loop nor the timer alive; both are empty
/// when no timer could be made.
class Handle : public Timer {
 public:
  Handle(std::weak_ptr<asio::io_context> io, std::weak_ptr<Repeating> timer)
      : io_(std::move(io)), timer_(std::move(timer)) {}

  void invalidate() override {
    if (getpid() != process_) return;  // a fork's child: no loop runs, and its locks may be held
    const auto io = io_.lock();        // outlives the use of the timer
    if (!io) return;
    if (const auto timer = timer_.lock()) catchAll([&] { timer->invalidate(); });
  }

 private:
  const pid_t process_ = getpid();
  std::weak_ptr<asio::io_context> io_;
  std::weak_ptr<Repeating> timer_;
};

class AsioLoop : public MainLoop {
 public:
  AsioLoop() = default;
  AsioLoop(const AsioLoop&) = delete;
  AsioLoop& operator=(const AsioLoop&) = delete;
  ~AsioLoop() override {
    if (!thread_.joinable()) return;
    io_->stop();
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }

  void post(Task task) override {
    if (isLeftBehind()) return;
    catchAll([&] { asio::post(*running(), [task = std::move(task)] { catchAll(task); }); });
  }

  std::shared_ptr<Timer> repeat(std::chrono::nanoseconds period, Task task) override {
    std::weak_ptr<asio::io_context> loop;
    std::weak_ptr<Repeating> timer;
    if (isLeftBehind()) return std::make_shared<Handle>(std::move(loop), std::move(timer));
    catchAll([&] {
      const auto io = running();
      const auto made = std::make_shared<Repeating>(*io, period, std::move(task));
      made->arm();
      loop = io;
      timer = made;
    });
    return std::make_shared<Handle>(std::move(loop), std::move(timer));
  }

 private:
  /// True in a fork's child: the thread stayed with the parent, and its locks may be held.
  bool isLeftBehind() const { return getpid() != process_; }

  /// The loop, its thread started.
  std::shared_ptr<asio::io_context> running() {
    const std::scoped_lock lock(startMutex_);
    if (!thread_.joinable()) {
      auto io = std::make_shared<asio::io_context>();
      thread_ = startBackgroundThread([io] {
        const auto stay = asio::make_work_guard(*io);
        io->run();
      });
      io_ = std::move(io);
    }
    return io_;
  }

  const pid_t process_ = getpid();
  std::mutex startMutex_;  // guards the rest until the thread runs
  std::shared_ptr<asio::io_context> io_;
  std::thread thread_;
};

}  // namespace

std::shared_ptr<MainLoop> makeAsioLoop() { return std::make_shared<AsioLoop>(); }

}  // namespace marbleway::platform
