#include "Marbleway/platform/fork.h"

#include <windows.h>

#include "Marbleway/platform/cancellation.h"
#include "Marbleway/platform/write_guard.h"

// Windows has no fork, cancels no thread, and raises no signal for a write. Once a process ends,
// only the thread that ended it is left, and locks of the others stay held: from there on the
// library does nothing, as in an unusable child elsewhere.
extern "C" __declspec(dllimport) BOOLEAN NTAPI RtlDllShutdownInProgress();

namespace marbleway::platform {
namespace {

bool isEnding() noexcept { return RtlDllShutdownInProgress() != 0; }

}  // namespace

void SystemMutex::lock() { AcquireSRWLockExclusive(reinterpret_cast<SRWLOCK*>(&state_)); }
void SystemMutex::unlock() { ReleaseSRWLockExclusive(reinterpret_cast<SRWLOCK*>(&state_)); }

void enterForkSection() noexcept {}
void leaveForkSection() noexcept {}

void ForkSafeMutex::lock() {
  if (!isEnding()) mutex_.lock();
}
void ForkSafeMutex::unlock() {
  if (!isEnding()) mutex_.unlock();
}

int forkCount() noexcept { return isEnding() ? 1 : 0; }
bool isUnusableChild() noexcept { return isEnding(); }
bool mayRecord() noexcept { return !isEnding(); }
bool startRecording() noexcept { return !isEnding(); }
void resetInChild(void (* /*reset*/)()) noexcept {}

void abandon(std::shared_ptr<const void> object) {
  (void)std::make_unique<std::shared_ptr<const void>>(std::move(object)).release();
}

CancellationDeferred::CancellationDeferred() { (void)former_; }
CancellationDeferred::~CancellationDeferred() = default;

struct WriteGuard::Signals {};
WriteGuard::WriteGuard(Into /*into*/) {}
WriteGuard::~WriteGuard() = default;

}  // namespace marbleway::platform
