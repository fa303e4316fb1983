#include "Marbleway/platform/linux/crash_hook.h"

#include <unistd.h>

#include <atomic>
#include <exception>
#include <mutex>

#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/linux/alternate_stack.h"
#include "Marbleway/platform/linux/crash_report.h"
#include "Marbleway/platform/linux/fatal_signals.h"
#include "Marbleway/platform/linux/recoverable.h"

namespace marbleway::platform {
namespace {

constinit ForkSafeMutex installMutex;
// A host's handler that was installed while the library ran outlasts its end, and may call the
// library's: after a restart the two would call each other. Then the first is called.
constinit std::atomic<std::terminate_handler> formerHandler{nullptr}, firstHandler{nullptr};
constinit std::atomic<pid_t> terminatingThread{0};

/// Runs on the thread that failed, with its stack as it was.
void onTerminate() {
  recover();
  report({}, {.address = __builtin_return_address(0)}, Outcome::fatal);
  const bool isNested = terminatingThread.exchange(gettid()) == gettid();
  if (const auto former = isNested ? firstHandler.load() : formerHandler.load()) former();
  // The caller aborts.
}

class LinuxCrashHook final : public CrashHook {
 public:
  void install(FailureHandler handler) override {
    giveAlternateStack();
    const std::scoped_lock lock(installMutex);  // no thread returns before crashes are captured
    if (!startReporter(handler)) return;
    if (std::get_terminate() != onTerminate) formerHandler = std::set_terminate(onTerminate);
    if (firstHandler == nullptr) firstHandler = formerHandler.load();
    captureFatalSignals();
  }
  void useRecords(const std::string& directory, const char* (*session)(),
                  FailureHandler handler) override {
    platform::useRecords(directory, session, handler);
  }
  void watchThread() noexcept override { giveAlternateStack(); }
  void uninstall() override {
    if (!isReporting()) return;
    releaseFatalSignals();
    if (std::get_terminate() == onTerminate) std::set_terminate(formerHandler);
    stopReporter();
    releaseAlternateStacks();
  }
};

}  // namespace

std::shared_ptr<CrashHook> makeCrashHook() { return std::make_shared<LinuxCrashHook>(); }

}  // namespace marbleway::platform
