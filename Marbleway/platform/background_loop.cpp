#include "Marbleway/platform/background_loop.h"

#include <utility>

#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/manual_loop.h"
#include "Marbleway/platform/worker.h"

namespace marbleway::platform {
namespace {

using Task = std::function<void()>;

struct LoopWork : Work {
  void run() override { loop.run(); }
  void stop() noexcept override { loop.stop(); }

  ManualLoop loop;
};

/// What `repeat` returns where no timer could be made.
class NoTimer : public Timer {
 public:
  void invalidate() override {}
};

class BackgroundLoop : public MainLoop {
 public:
  void post(Task task) override {
    catchAll([&] { running()->loop.post(std::move(task)); });
  }

  std::shared_ptr<Timer> repeat(std::chrono::nanoseconds period, Task task) override {
    std::shared_ptr<Timer> timer;
    catchAll([&] { timer = running()->loop.repeat(period, std::move(task)); });
    return timer ? timer : std::make_shared<NoTimer>();
  }

 private:
  std::shared_ptr<LoopWork> running() {
    return std::static_pointer_cast<LoopWork>(worker_.running());
  }

  Worker worker_{[] { return std::make_shared<LoopWork>(); }};
};

}  // namespace

std::shared_ptr<MainLoop> makeBackgroundLoop() { return std::make_shared<BackgroundLoop>(); }

}  // namespace marbleway::platform
