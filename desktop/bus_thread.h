#pragma once

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "desktop/handles.h"

namespace marbleway::desktop {

struct BusServices;

/// What the services are configured with; read once, when they are installed.
struct Setting {
  std::string desktopEntry;                   // without ".desktop"
  std::string systemAddress, sessionAddress;  // of the buses; empty: there is none
};

/// The one thread of the component. It starts with a task and ends when no task is left and nothing
/// is watched. Thread: any.
class BusThread {
 public:
  using Task = std::function<void(BusServices&)>;

  explicit BusThread(Setting setting);
  BusThread(const BusThread&) = delete;
  BusThread& operator=(const BusThread&) = delete;
  ~BusThread() = default;  // after `end`

  /// Runs `task` on the thread. It is dropped in a fork's child, and where no thread can be had.
  void post(Task task) noexcept;
  /// Stops the thread after the task that runs, drops the other tasks, and joins it; it goes its
  /// own way if it does not stop in this time.
  void end(std::chrono::milliseconds atMost) noexcept;
  /// False in a fork's child.
  bool isInThisProcess() const { return process_ == getpid(); }
  const Setting& setting() const { return setting_; }

 private:
  void start();
  void run();
  std::optional<std::vector<Task>> takeTasks(bool isNeeded);
  void markEnded();
  void wake() const;

  const Setting setting_;
  const pid_t process_ = getpid();
  const int wakeUp_;  // an eventfd
  std::mutex mutex_;  // guards the rest
  std::condition_variable stopped_;
  std::vector<Task> tasks_;
  bool isRunning_ = false, isStopping_ = false;
  std::thread thread_;
};

}  // namespace marbleway::desktop
