#include "Marbleway/platform/linux/crash_reporter.h"

#include <execinfo.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <optional>

#include "Marbleway/platform/call_stack.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/linux/alternate_stack.h"
#include "Marbleway/platform/linux/background_thread.h"
#include "Marbleway/platform/linux/recoverable.h"

namespace marbleway::platform {
namespace {

using std::chrono::nanoseconds;

constexpr nanoseconds kPatience = std::chrono::seconds(2);
constexpr std::size_t kStackSize = 256UL * 1024;

// Set before the first report, `process` last.
using Handler = void (*)(const Failure& failure);
constinit Handler handlerInForce = nullptr;
constinit bool hasThread = false;
constinit std::atomic<pid_t> process{0};

// The one report. The first failing thread is the one that sets the deadline.
constinit std::atomic<nanoseconds::rep> deadline{0};  // on the steady clock
constinit NoDestructor<std::optional<Crash>> crash;
constinit sem_t begun{}, done{};
constinit std::atomic<pid_t> reportingThread{0};

/// Fills in the frames of this thread from `place` on.
void walkStack(Crash& found, const Place& place) {
  auto& frames = found.frames;
  // A damaged stack leads to bad memory: then the frames so far are all.
  runRecoverably([&] { backtrace(frames.data(), static_cast<int>(frames.size())); });
  const auto end = std::find(frames.begin(), frames.end(), nullptr);
  const auto first = std::find(frames.begin(), end, place.address);
  if (first != end || place.caller == nullptr) {
    const auto last = std::move(first != end ? first : frames.begin(), end, frames.begin());
    found.depth = static_cast<std::size_t>(last - frames.begin());
    return;
  }
  // From a jump to nowhere no walk leads back, but its caller has left an address.
  frames[0] = const_cast<void*>(place.address);
  found.depth = 1;
  runRecoverably([&] {
    frames[1] = const_cast<void*>(*place.caller);
    found.depth = 2;
  });
}

void deliver() {
  reportingThread = gettid();
  catchAll([] { handlerInForce(failureOf(*crash.value)); });
  reportingThread = 0;  // a later thread may get this number
  sem_post(&done);
}

/// The report itself has failed: the failing threads wait no longer.
void endReport() {
  sem_post(&done);
  while (hasThread) pause();  // until they have ended the process
}

void waitUntilDone() {
  const auto until = nanoseconds(deadline);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(until);
  const timespec time{.tv_sec = seconds.count(), .tv_nsec = (until - seconds).count()};
  while (sem_clockwait(&done, CLOCK_MONOTONIC, &time) != 0) {
    if (errno != EINTR) return;
  }
  sem_post(&done);  // for the next thread
}

void* standBy(void* /*unused*/) {
  const AlternateStack stack;
  while (sem_wait(&begun) != 0) {
  }
  const FatalSignalsUnblocked unblocked;  // a failure of the report is to be noticed, too
  deliver();
  return nullptr;
}

bool startThread() {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setstacksize(&attributes, kStackSize);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  const SignalsBlocked blocked;  // a thread inherits the mask of the one that starts it
  pthread_t thread{};
  const bool isStarted = pthread_create(&thread, &attributes, standBy, nullptr) == 0;
  pthread_attr_destroy(&attributes);
  return isStarted;
}

}  // namespace

bool startReporter(void (*handler)(const Failure& failure)) {
  (void)returnAddresses();  // loads what walking a stack needs
  handlerInForce = handler;
  sem_init(&begun, 0, 0);
  sem_init(&done, 0, 0);
  hasThread = startThread();
  process = getpid();
  return hasThread;
}

void report(const Cause& cause, const Place& place) {
  if (process != getpid()) return;
  if (reportingThread == gettid()) return endReport();

  nanoseconds::rep none = 0;
  const nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
  if (deadline.compare_exchange_strong(none, (now + kPatience).count())) {
    crash.value.emplace(Crash{.cause = cause});
    walkStack(*crash.value, place);
    if (hasThread) {
      sem_post(&begun);
    } else {
      deliver();
    }
  }
  waitUntilDone();
}

}  // namespace marbleway::platform
