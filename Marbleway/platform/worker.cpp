#include "Marbleway/platform/worker.h"

#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Marbleway/platform/background_thread.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/platform.h"

namespace marbleway::platform {

struct WorkerState {
  explicit WorkerState(std::function<std::shared_ptr<Work>()> maker) : make(std::move(maker)) {}

  void start();
  void end() noexcept;

  const std::function<std::shared_ptr<Work>()> make;
  ForkSafeMutex mutex;  // guards the rest
  std::shared_ptr<Work> work;
  std::thread thread;
  int process = forkCount();  // that the thread is in
};

namespace {

constinit Guarded<std::vector<std::weak_ptr<WorkerState>>> states;

}  // namespace

/// Starts the thread, if this process has none. `mutex` is held.
void WorkerState::start() {
  if (process != forkCount()) {
    std::construct_at(&thread);  // the parent's, of which nothing is here
    abandon(std::exchange(work, nullptr));
    process = forkCount();
  }
  if (thread.joinable()) return;
  pinModule();
  auto made = make();
  thread = startBackgroundThread([made] { catchAll([&] { made->run(); }); });
  work = std::move(made);
}

void WorkerState::end() noexcept {
  std::unique_lock lock(mutex);
  if (!thread.joinable() || process != forkCount()) return;
  std::thread former = std::exchange(thread, {});
  const auto stopped = std::exchange(work, nullptr);
  lock.unlock();
  stopped->stop();
  if (isProcessEnding || former.get_id() == std::this_thread::get_id()) {
    former.detach();
  } else {
    former.join();
  }
}

Worker::Worker(std::function<std::shared_ptr<Work>()> make)
    : state_(std::make_shared<WorkerState>(std::move(make))) {
  states.update([&](auto& all) {
    std::erase_if(all, [](const auto& each) { return each.expired(); });
    all.push_back(state_);
  });
}

Worker::~Worker() {
  state_->end();
  if (state_->process != forkCount()) abandon(state_);
}

std::shared_ptr<Work> Worker::running() {
  const std::scoped_lock lock(state_->mutex);
  state_->start();
  return state_->work;
}

void endThreads() noexcept {
  catchAll([] {
    for (const auto& each : states.load()) {
      if (const auto state = each.lock()) state->end();
    }
  });
}

}  // namespace marbleway::platform
