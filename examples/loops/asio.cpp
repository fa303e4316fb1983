// The library on an application's own Asio context.
#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <csignal>
#include <optional>

#include "examples/loops/use.h"

namespace {

using namespace std::chrono_literals;
namespace platform = marbleway::platform;
using Task = std::function<void()>;

/// A repeating timer. Its pending wait on the context owns it.
class Repeating : public platform::Timer, public std::enable_shared_from_this<Repeating> {
 public:
  Repeating(asio::io_context& io, std::chrono::nanoseconds period, Task task)
      : timer_(io),
        period_(std::clamp<std::chrono::nanoseconds>(period, platform::kMinPeriod, 8760h)),
        task_(std::move(task)) {}

  void arm() {
    timer_.expires_after(period_);
    timer_.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
      if (cancelled || self->isOver_) return;
      self->task_();
      self->arm();
    });
  }
  void invalidate() override {
    isOver_ = true;  // on any thread; the wait is cancelled on the context's
    asio::post(timer_.get_executor(), [self = shared_from_this()] { self->timer_.cancel(); });
  }

 private:
  asio::steady_timer timer_;
  const std::chrono::nanoseconds period_;
  const Task task_;
  std::atomic<bool> isOver_{false};
};

class ContextLoop : public platform::MainLoop {
 public:
  explicit ContextLoop(std::shared_ptr<asio::io_context> io) : io_(std::move(io)) {}

  void post(Task task) override { asio::post(*io_, std::move(task)); }
  std::shared_ptr<platform::Timer> repeat(std::chrono::nanoseconds period, Task task) override {
    const auto timer = std::make_shared<Repeating>(*io_, period, std::move(task));
    asio::post(*io_, [timer] { timer->arm(); });
    return timer;
  }

 private:
  std::shared_ptr<asio::io_context> io_;  // the library's threads may outlive `main`
};

}  // namespace

int main(int count, char** words) {
  const auto io = std::make_shared<asio::io_context>();
  const auto loop = std::make_shared<ContextLoop>(io);
  std::optional<example::Ending> ending;
  const auto end = [&] {
    ending.emplace();
    loop->repeat(20ms, [&] {
      if (ending->isOver()) io->stop();
    });
  };
  asio::signal_set signals(*io, SIGINT);
  signals.async_wait([&](const asio::error_code& /*error*/, int /*signal*/) { end(); });
  if (example::begin(loop, count, words)) end();
  io->run();  // also runs the application's own work
  return ending->status();
}
