#include "Marbleway/platform/linux/crash_hook.h"

#include <atomic>
#include <exception>

#include "Marbleway/platform/linux/alternate_stack.h"
#include "Marbleway/platform/linux/crash_reporter.h"
#include "Marbleway/platform/linux/fatal_signals.h"
#include "Marbleway/platform/linux/recoverable.h"

namespace marbleway::platform {
namespace {

constinit std::atomic<bool> isInstalled{false};
constinit std::atomic<std::terminate_handler> formerHandler{nullptr};

/// Runs on the thread that failed, with its stack as it was.
void onTerminate() {
  recover();
  report({.exception = std::current_exception()}, {.address = __builtin_return_address(0)});
  if (const auto former = formerHandler.load()) former();
  // The caller aborts.
}

class LinuxCrashHook final : public CrashHook {
 public:
  void install(void (*handler)(const Failure& failure)) override {
    static thread_local const AlternateStack stack;
    if (isInstalled.exchange(true)) return;
    const bool canReportSignals = startReporter(handler);
    formerHandler = std::get_terminate();
    std::set_terminate(onTerminate);
    if (canReportSignals) reportFatalSignals();
  }
};

}  // namespace

std::shared_ptr<CrashHook> makeCrashHook() { return std::make_shared<LinuxCrashHook>(); }

}  // namespace marbleway::platform
