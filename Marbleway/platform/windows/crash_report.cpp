#include "Marbleway/platform/windows/crash_report.h"

#include <process.h>

#include <atomic>
#include <exception>
#include <optional>

#include "Marbleway/platform/background_thread.h"
#include "Marbleway/platform/call_stack.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/crash_file.h"
#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/windows/crash_hook.h"
#include "Marbleway/platform/windows/crash_stack.h"

namespace marbleway::platform {
namespace {

constexpr DWORD kReportTimeout = 500;         // milliseconds
constexpr unsigned kStackSize = 256U * 1024;  // bytes, of the reporting thread

constinit Guarded<std::optional<std::string>> recordDirectory;
constinit std::atomic<const char* (*)()> sessionOfCrash{nullptr};

// Set before the first report, `isCapturing` last.
constinit FailureHandler failureHandler = nullptr;
constinit HANDLE thread = nullptr;  // null: the system had none left
constinit HANDLE begun = nullptr, done = nullptr;
constinit std::atomic<bool> isCapturing{false}, isStopping{false};

// The one report. `recorded` may be withdrawn or replaced; `final` may not.
enum class Phase { none, recording, recorded, final };
constinit std::atomic<Phase> phase{Phase::none};
constinit std::atomic<DWORD> failingThread{0}, reportingThread{0};
constinit std::atomic<ULONGLONG> waitEnd{0};  // of the first wait for the row; 0: none has begun
constinit CrashRecord record{};
constinit CrashFile file;

// Makes this thread the one whose failure is recorded. False when another's is final, or when this
// one's is recorded already: a handler that aborts after a fault.
bool claimRecord() {
  const ULONGLONG until = GetTickCount64() + kReportTimeout;
  for (;;) {
    Phase present = phase;
    const bool isOwn = failingThread == GetCurrentThreadId();
    if (present == Phase::final || (present != Phase::none && isOwn)) return false;
    if (present == Phase::recording) {
      if (GetTickCount64() > until) return false;
      Sleep(1);
    } else if (phase.compare_exchange_strong(present, Phase::recording)) {
      failingThread = GetCurrentThreadId();
      return true;
    }
  }
}

// The exception that std::terminate found.
void recordException() {
  const char* const type = currentExceptionType();
  if (type == nullptr) return;
  copyText(record.type, type);
  copyText(record.reason, "what() failed");
  try {
    throw;
  } catch (const std::exception& known) {
    copyText(record.reason, known.what());
  } catch (...) {
    copyText(record.reason, "not a std::exception");
  }
}

// The report itself has failed: the failing threads wait no longer, and end the process.
void endReport() {
  SetEvent(done);
  Sleep(INFINITE);
}

unsigned __stdcall runReporter(void* /*unused*/) {
  guaranteeStack();
  if (WaitForSingleObject(begun, INFINITE) != WAIT_OBJECT_0 || isStopping) return 0;
  reportingThread = GetCurrentThreadId();
  catchAll([] {
    Failure failure = failureOf(record, Names::ofThisProcess);
    if (failure.sessionID) {
      failure.onRecorded = [] { file.writeState(CrashRecord::State::withRow); };
    }
    failureHandler(failure);
  });
  reportingThread = 0;  // a later thread may get this number
  SetEvent(done);
  return 0;
}

void closeHandle(HANDLE& handle) {
  if (handle != nullptr) CloseHandle(handle);
  handle = nullptr;
}

}  // namespace

void useRecords(const std::string& directory, const char* (*session)(), FailureHandler handler) {
  recordDirectory.store(directory);
  sessionOfCrash = session;
  file.reportEarlier(directory, handler);
}

bool startReporter(FailureHandler handler) {
  if (isCapturing) return false;
  if (const std::string directory = recordDirectory.load().value_or(""); !directory.empty()) {
    file.open(directory);
  }
  prepareWalk();
  pinModule();  // handlers and the thread outlast a host that unloads the library
  failureHandler = handler;
  phase = Phase::none;
  failingThread = reportingThread = 0;
  waitEnd = 0;
  isStopping = false;
  begun = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  done = CreateEventW(nullptr, TRUE, FALSE, nullptr);  // all failing threads wait for it
  thread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, kStackSize, runReporter, nullptr,
                                                   STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
  isCapturing = true;
  return true;
}

void stopReporter() {
  if (!isCapturing.exchange(false)) return;
  isStopping = true;
  SetEvent(begun);
  if (thread != nullptr) WaitForSingleObject(thread, INFINITE);
  for (HANDLE* handle : {&thread, &begun, &done}) closeHandle(*handle);
  file.close();
}

bool isReporting() { return isCapturing; }

void recordFailure(const Cause& cause) {
  if (!isCapturing) return;
  if (reportingThread == GetCurrentThreadId()) return endReport();
  if (!claimRecord()) return;
  clear(record);
  record.signal = cause.code;
  record.code = cause.access;
  record.address = cause.address;
  recordTime(record);
  const char* const session = sessionOfCrash != nullptr ? sessionOfCrash.load()() : nullptr;
  const bool isAdmitted = session != nullptr && *session != '\0';
  if (isAdmitted) {
    copyText(record.sessionID, session);
    record.state = CrashRecord::State::withoutRow;
    file.write(record);  // before anything that could fail or block
  }
  if (cause.code == 0) recordException();
  if (cause.registers != nullptr) {
    recordFramesFrom(record, *cause.registers);
  } else {
    recordFramesHere(record, cause.caller);
  }
  if (isAdmitted) file.write(record);
  findModules(record);
  if (isAdmitted) file.write(record);
  phase = Phase::recorded;
}

void awaitRow() {
  if (!isCapturing || thread == nullptr) return;
  ULONGLONG end = 0;
  if (waitEnd.compare_exchange_strong(end, GetTickCount64() + kReportTimeout)) end = waitEnd;
  // A thread that fails while it records goes on here with what it has.
  Phase present = failingThread == GetCurrentThreadId() ? phase.load() : Phase::recorded;
  if (present != Phase::final && phase.compare_exchange_strong(present, Phase::final)) {
    SetEvent(begun);
  }
  const ULONGLONG now = GetTickCount64();
  WaitForSingleObject(done, now < end ? static_cast<DWORD>(end - now) : 0);
}

void withdrawRecord() {
  Phase present = Phase::recorded;
  if (!isCapturing || failingThread != GetCurrentThreadId()) return;
  if (!phase.compare_exchange_strong(present, Phase::recording)) return;
  file.writeState(CrashRecord::State::empty);
  failingThread = 0;
  waitEnd = 0;
  phase = Phase::none;
}

}  // namespace marbleway::platform
