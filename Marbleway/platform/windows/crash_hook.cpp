#include "Marbleway/platform/windows/crash_hook.h"

#include <windows.h>

#include <mutex>

#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/windows/crash_handlers.h"
#include "Marbleway/platform/windows/crash_report.h"

namespace marbleway::platform {
namespace {

constinit ForkSafeMutex installMutex;

class WindowsCrashHook final : public CrashHook {
 public:
  void install(FailureHandler handler) override {
    guaranteeStack();
    const std::scoped_lock lock(installMutex);  // no thread returns before crashes are captured
    if (startReporter(handler)) captureFailures();
  }
  void useRecords(const std::string& directory, const char* (*session)(),
                  FailureHandler handler) override {
    platform::useRecords(directory, session, handler);
  }
  void watchThread() noexcept override { guaranteeStack(); }
  void uninstall() override {
    const std::scoped_lock lock(installMutex);
    if (!isReporting()) return;
    releaseFailures();
    stopReporter();
  }
};

}  // namespace

std::shared_ptr<CrashHook> makeCrashHook() { return std::make_shared<WindowsCrashHook>(); }

void guaranteeStack() noexcept {
  constexpr ULONG kBytes = 32UL * 1024;  // the filters, a record's frames and its files
  ULONG present = 0;                     // zero asks for what is guaranteed now
  if (SetThreadStackGuarantee(&present) == FALSE || present >= kBytes) return;
  ULONG wanted = kBytes;
  SetThreadStackGuarantee(&wanted);
}

}  // namespace marbleway::platform
