#pragma once

#include <atomic>
#include <functional>
#include <memory>

namespace marbleway::platform {

/// What a background thread runs.
class Work {
 public:
  Work() = default;
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;
  virtual ~Work() = default;

  /// Returns soon after `stop`. Called once, on the background thread.
  virtual void run() = 0;
  /// Thread: any.
  virtual void stop() noexcept = 0;
};

struct WorkerState;

/// A service's background thread, which `endThreads` ends too. It starts when it is first needed.
/// Once it has ended, and in the child of a fork, the next need starts another with work of its
/// own. Thread: any.
class Worker {
 public:
  explicit Worker(std::function<std::shared_ptr<Work>()> make);
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  /// Ends the thread.
  ~Worker();

  /// The work, with its thread started. Throws std::system_error when the system has no thread.
  std::shared_ptr<Work> running();

 private:
  const std::shared_ptr<WorkerState> state_;
};

/// True once the process's exit handlers run: threads are then no longer waited for.
inline constinit std::atomic<bool> isProcessEnding{false};

}  // namespace marbleway::platform
