#include "desktop/bus_thread.h"

#include <pthread.h>
#include <sys/eventfd.h>

#include <csignal>
#include <utility>

#include "desktop/bus_services.h"

namespace marbleway::desktop {
namespace {

/// Blocks every signal but the fatal ones for the calling thread while it lives; a thread that it
/// starts inherits that.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fatal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
      sigdelset(&blocked, fatal);
    }
    pthread_sigmask(SIG_SETMASK, &blocked, &former_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

 private:
  sigset_t former_{};
};

}  // namespace

BusThread::BusThread(Setting setting)
    : setting_(std::move(setting)), wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void BusThread::post(Task task) noexcept {
  if (!isInThisProcess()) return;  // its mutex may be held for ever
  catchAll([&] {
    const std::scoped_lock lock(mutex_);
    if (isStopping_) return;
    tasks_.push_back(std::move(task));
    isRunning_ ? wake() : start();
  });
}

/// `mutex_` is held.
void BusThread::start() {
  if (thread_.joinable()) thread_.join();  // it has ended by itself
  try {
    const SignalsBlocked blocked;
    thread_ = std::thread([this] { run(); });
    isRunning_ = true;
  } catch (...) {  // no thread, no task
    tasks_.clear();
  }
}

void BusThread::run() {
  bool hasEnded = false;
  catchAll([&] {
    BusServices services(setting_, wakeUp_);
    while (services.isUsable()) {
      const auto tasks = takeTasks(services.isNeeded());
      hasEnded = !tasks;
      if (hasEnded) return;
      for (const Task& task : *tasks) catchAll([&] { task(services); });
      services.maintain();
      if (services.isNeeded() && sd_event_run(services.event.get(), UINT64_MAX) < 0) return;
      services.maintain();
    }
  });
  if (hasEnded) return;  // `mutex_` may be held by who waits for this thread
  const std::scoped_lock lock(mutex_);
  markEnded();
}

/// Absent: the thread is to end.
std::optional<std::vector<BusThread::Task>> BusThread::takeTasks(bool isNeeded) {
  const std::scoped_lock lock(mutex_);
  if (!isStopping_ && (isNeeded || !tasks_.empty())) return std::exchange(tasks_, {});
  markEnded();
  return std::nullopt;
}

/// `mutex_` is held.
void BusThread::markEnded() {
  isRunning_ = isStopping_ = false;
  tasks_.clear();
  stopped_.notify_all();
}

void BusThread::end(std::chrono::milliseconds atMost) noexcept {
  if (!isInThisProcess()) return;
  catchAll([&] {
    std::unique_lock lock(mutex_);
    if (!thread_.joinable()) return;
    std::thread former = std::exchange(thread_, {});
    isStopping_ = isRunning_;
    wake();
    const bool isOwn = former.get_id() == std::this_thread::get_id();
    if (isOwn || !stopped_.wait_for(lock, atMost, [&] { return !isRunning_; })) {
      return former.detach();
    }
    lock.unlock();
    former.join();
  });
}

void BusThread::wake() const { eventfd_write(wakeUp_, 1); }

}  // namespace marbleway::desktop
