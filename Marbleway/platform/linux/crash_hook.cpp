#include "Marbleway/platform/linux/crash_hook.h"

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
constinit std::atomic<std::terminate_handler> formerHandler{nullptr};

/// Runs on the thread that failed, with its stack as it was.
void onTerminate() {
  recover();
  report({}, {.address = __builtin_return_address(0)}, Outcome::fatal);
  if (const auto former = formerHandler.load()) former();
  // The caller aborts.
}

class LinuxCrashHook final : public CrashHook {
 public:
  void install(FailureHandler handler) override {
    giveAlternateStack();
    const std::scoped_lock lock(installMutex);  // no thread returns before crashes are captured
    if (!startReporter(handler)) return;
    if (std::get_terminate() != onTerminate) formerHandler = std::set_terminate(onTerminate);
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
