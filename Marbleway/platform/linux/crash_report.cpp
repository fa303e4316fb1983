#include "Marbleway/platform/linux/crash_report.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <chrono>
#include <optional>
#include <ratio>

#include "Marbleway/platform/call_stack.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/crash_file.h"
#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/linux/alternate_stack.h"
#include "Marbleway/platform/linux/recoverable.h"
#include "Marbleway/platform/linux/signals_blocked.h"

namespace marbleway::platform {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kReportTimeout{500};
constexpr std::size_t kStackSize = 256UL * 1024;  // bytes, of the reporting thread

constinit Guarded<std::optional<std::string>> recordDirectory;
constinit std::atomic<const char* (*)()> sessionOfCrash{nullptr};

// Set before the first report, `process` last.
constinit FailureHandler failureHandler = nullptr;
constinit bool hasThread = false;
constinit pthread_t thread{};
constinit std::atomic<bool> isStopping{false};
constinit std::atomic<pid_t> process{0};  // 0: nothing is captured
constinit std::atomic<pid_t> preparedProcess{0};

// The one report. `recorded` may be withdrawn or replaced; `final` may not.
enum class Phase { none, recording, recorded, final };
constinit std::atomic<Phase> phase{Phase::none};
constinit std::atomic<pid_t> failingThread{0};
constinit CrashRecord record{};
constinit CrashFile file;
constinit sem_t begun{}, done{};
constinit std::atomic<steady_clock::rep> waitEnd{0};  // of all that wait for the row; 0: none has
constinit std::atomic<pid_t> reportingThread{0};

// Makes this thread the one whose failure is recorded. False when another's is final, or when this
// one's is recorded already: a handler that aborts after a fault.
bool claimRecord() {
  const auto until = steady_clock::now() + kReportTimeout;
  for (;;) {
    Phase present = phase;
    const bool isOwn = failingThread == gettid();
    if (present == Phase::final || (present != Phase::none && isOwn)) return false;
    if (present == Phase::recording) {
      if (steady_clock::now() > until) return false;
      usleep(1000);
    } else if (phase.compare_exchange_strong(present, Phase::recording)) {
      failingThread = gettid();
      return true;
    }
  }
}

struct Walk {
  std::uint64_t start;  // the frame to begin with
  bool hasStarted = false;
};

_Unwind_Reason_Code addFrame(_Unwind_Context* frame, void* state) {
  auto& walk = *static_cast<Walk*>(state);
  const std::uint64_t address = _Unwind_GetIP(frame);
  if (!walk.hasStarted && address == walk.start) {
    walk.hasStarted = true;
    record.depth = 0;
  }
  if (!walk.hasStarted || address == 0) return _URC_NO_REASON;
  record.frames[record.depth++] = address;
  return record.depth < record.frames.size() ? _URC_NO_REASON : _URC_END_OF_STACK;
}

// A jump to an address without code has no frame, but the caller's return address is on the stack.
// A damaged stack makes the walk read bad memory: it then ends with the frames so far.
void recordFrames(const Place& place) {
  record.frames[0] = std::bit_cast<std::uintptr_t>(place.address);
  record.depth = 1;
  runRecoverably([&] {
    if (place.caller == nullptr) return;
    record.frames[1] = std::bit_cast<std::uintptr_t>(*place.caller);
    record.depth = 2;
  });
  const char* const session = sessionOfCrash != nullptr ? sessionOfCrash.load()() : nullptr;
  const bool isAdmitted = session != nullptr && *session != '\0';
  if (isAdmitted) {
    copyText(record.sessionID, session);
    record.state = CrashRecord::State::withoutRow;
    file.write(record);  // before anything that could fail or block
  }
  Walk walk{.start = record.frames[0]};
  runRecoverably([&] { _Unwind_Backtrace(addFrame, &walk); });
  if (isAdmitted) file.write(record);
  findModules(record);
  if (isAdmitted) file.write(record);
}

// The exception that std::terminate found.
void recordException() {
  copyText(record.reason, "what() failed");
  runRecoverably([] {
    const char* const type = currentExceptionType();
    if (type == nullptr) return;
    copyText(record.type, type);
    try {
      throw;
    } catch (const std::exception& known) {
      copyText(record.reason, known.what());
    } catch (...) {
      copyText(record.reason, "not a std::exception");
    }
  });
}

void recordFailure(const Cause& cause, const Place& place) {
  clear(record);
  record.signal = cause.signal;
  record.code = cause.code;
  record.address = std::bit_cast<std::uintptr_t>(cause.address);
  recordTime(record);
  if (cause.signal == 0) recordException();
  recordFrames(place);
}

// Hands the record to the reporting thread, if none has been, and waits for the row: also from
// std::abort, after std::terminate has waited.
void awaitRow() {
  if (!hasThread) return;
  Phase present = Phase::recorded;
  if (phase.compare_exchange_strong(present, Phase::final)) sem_post(&begun);
  const auto latest = (steady_clock::now() + kReportTimeout).time_since_epoch().count();
  steady_clock::rep end = 0;
  if (waitEnd.compare_exchange_strong(end, latest)) end = latest;
  const timespec time{.tv_sec = static_cast<time_t>(end / std::nano::den),
                      .tv_nsec = static_cast<long>(end % std::nano::den)};
  while (sem_clockwait(&done, CLOCK_MONOTONIC, &time) != 0) {
    if (errno != EINTR) return;
  }
  sem_post(&done);  // for the next thread
}

// The report itself has failed: the failing threads wait no longer.
void endReport() {
  sem_post(&done);
  for (;;) pause();  // until they have ended the process
}

void* runReporter(void* /*unused*/) {
  giveAlternateStack();
  while (sem_wait(&begun) != 0) {
  }
  if (isStopping) return nullptr;
  reportingThread = gettid();
  catchAll([] {
    Failure failure = failureOf(record, Names::ofThisProcess);
    if (failure.sessionID) {
      failure.onRecorded = [] { file.writeState(CrashRecord::State::withRow); };
    }
    failureHandler(failure);
  });
  reportingThread = 0;  // a later thread may get this number
  sem_post(&done);
  return nullptr;
}

bool startThread() {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setstacksize(&attributes, kStackSize);
  const SignalsBlocked blocked;  // a thread inherits the mask of the one that starts it
  const bool isStarted = pthread_create(&thread, &attributes, runReporter, nullptr) == 0;
  pthread_attr_destroy(&attributes);
  return isStarted;
}

_Unwind_Reason_Code endWalk(_Unwind_Context* /*frame*/, void* /*state*/) {
  return _URC_END_OF_STACK;
}

}  // namespace

void useRecords(const std::string& directory, const char* (*session)(), FailureHandler handler) {
  recordDirectory.store(directory);
  sessionOfCrash = session;
  file.reportEarlier(directory, handler);
}

bool startReporter(FailureHandler handler) {
  if (preparedProcess.exchange(getpid()) == getpid()) return false;
  _Unwind_Backtrace(endWalk, nullptr);  // binds what a walk needs
  if (const std::string directory = recordDirectory.load().value_or(""); !directory.empty()) {
    file.open(directory);
  }
  failureHandler = handler;
  phase = Phase::none;
  failingThread = reportingThread = recoverableThread = 0;
  waitEnd = 0;
  isStopping = false;
  sem_init(&begun, 0, 0);
  sem_init(&done, 0, 0);
  hasThread = startThread();
  process = getpid();
  return true;
}

void stopReporter() {
  if (!isReporting()) return;
  process = 0;
  isStopping = true;
  if (hasThread) {
    sem_post(&begun);
    pthread_join(thread, nullptr);
  }
  file.close();
  preparedProcess = 0;
}

bool isReporting() { return process == getpid(); }

void report(const Cause& cause, const Place& place, Outcome outcome) {
  if (!isReporting()) return;
  if (reportingThread == gettid()) return endReport();
  if (claimRecord()) {
    recordFailure(cause, place);
    phase = Phase::recorded;
  }
  if (outcome == Outcome::fatal) awaitRow();
}

void withdrawReport() {
  Phase present = Phase::recorded;
  if (!isReporting() || failingThread != gettid()) return;
  if (!phase.compare_exchange_strong(present, Phase::recording)) return;
  file.writeState(CrashRecord::State::empty);
  failingThread = 0;
  phase = Phase::none;
}

}  // namespace marbleway::platform
