#include "Marbleway/platform/windows/crash_handlers.h"

#include <windows.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>

#include "Marbleway/platform/windows/crash_cause.h"
#include "Marbleway/platform/windows/crash_report.h"
#include "Marbleway/platform/windows/crash_stack.h"

namespace marbleway::platform {
namespace {

using SignalHandler = void (*)(int);

/// What stood in the place of a handler. A host's handler that was installed while the library ran
/// outlasts its end, and may call the library's: after a restart the two would call each other.
template <class Handler>
struct Former {
  std::atomic<Handler> latest{}, first{};
  std::atomic<DWORD> thread{0};  // on which the library's handler runs; 0: on none

  void set(Handler former) {
    Handler none{};
    first.compare_exchange_strong(none, former);
    latest = former;
  }
};
constinit Former<LPTOP_LEVEL_EXCEPTION_FILTER> formerFilter;
constinit Former<std::terminate_handler> formerTerminate;
constinit Former<SignalHandler> formerAbort;  // SIG_DFL is null
constinit Former<_invalid_parameter_handler> formerInvalidParameter;
constinit Former<_purecall_handler> formerPureCall;

/// A run of the library's handler. One that is called by the latest handler goes on to the first.
template <class Handler>
class Run {
 public:
  explicit Run(Former<Handler>& former)
      : former_(former),
        isNested_(former.thread.exchange(GetCurrentThreadId()) == GetCurrentThreadId()) {}
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run() {
    if (!isNested_) former_.thread = 0;
  }

  bool isNested() const { return isNested_; }
  Handler next() const { return isNested_ ? former_.first : former_.latest; }

 private:
  Former<Handler>& former_;
  const bool isNested_;
};

// Whether the run-time ends the process after an invalid parameter, or else returns an error.
#if defined(_UCRT)
constexpr bool kInvalidParameterEnds = true;
#else
constexpr bool kInvalidParameterEnds = false;
#endif

void reportFatal(const Cause& cause) {
  recordFailure(cause);
  awaitRow();
}

Cause causeOf(const EXCEPTION_POINTERS& exception) {
  const EXCEPTION_RECORD& facts = *exception.ExceptionRecord;
  Cause cause{.code = static_cast<std::int32_t>(facts.ExceptionCode),
              .address = reinterpret_cast<std::uint64_t>(facts.ExceptionAddress),
              .registers = exception.ContextRecord};
  if (isAccess(facts.ExceptionCode) && facts.NumberParameters >= 2) {
    cause.access = static_cast<std::int32_t>(facts.ExceptionInformation[0]);
    cause.address = facts.ExceptionInformation[1];
  }
  return cause;
}

// The run-time throws by an exception, too. Where nothing catches it, its filter continues, and
// std::terminate follows with a record of its own.
LONG WINAPI onException(EXCEPTION_POINTERS* exception) {
  recordFailure(causeOf(*exception));
  const Run run(formerFilter);
  const auto former = run.next();  // it may end the process itself
  const LONG decision = former != nullptr ? former(exception) : EXCEPTION_CONTINUE_SEARCH;
  if (run.isNested()) return decision;
  decision == EXCEPTION_CONTINUE_EXECUTION ? withdrawRecord() : awaitRow();
  return decision;
}

void onTerminate() {
  reportFatal({.caller = callersReturnAddress()});
  const Run run(formerTerminate);
  if (const auto former = run.next()) former();
  // The caller aborts.
}

void onAbort(int number) {
  reportFatal({.code = number, .caller = callersReturnAddress()});
  const Run run(formerAbort);
  std::signal(number, run.next());
  std::raise(number);
}

void onInvalidParameter(const wchar_t* expression, const wchar_t* function, const wchar_t* source,
                        unsigned line, std::uintptr_t reserved) {
  const Run run(formerInvalidParameter);
  const auto former = run.next();
  if (former == nullptr && !kInvalidParameterEnds) return;
  recordFailure({.code = kInvalidParameter, .caller = callersReturnAddress()});
  if (former != nullptr) {
    former(expression, function, source, line, reserved);
    return withdrawRecord();  // the call returns an error
  }
  awaitRow();
  RaiseFailFastException(nullptr, nullptr, 0);
}

void onPureCall() {
  reportFatal({.code = kPureCall, .caller = callersReturnAddress()});
  const Run run(formerPureCall);
  if (const auto former = run.next()) former();
  // The caller aborts.
}

template <class Handler, class Set>
void release(Handler ours, Handler former, Set set) {
  if (const Handler present = set(former); present != ours) set(present);
}

}  // namespace

void captureFailures() {
  formerFilter.set(SetUnhandledExceptionFilter(onException));
  formerTerminate.set(std::set_terminate(onTerminate));
  formerAbort.set(std::signal(SIGABRT, onAbort));
  const SignalHandler abort = formerAbort.latest;
  if (abort == SIG_IGN || abort == SIG_ERR) std::signal(SIGABRT, abort);
  formerInvalidParameter.set(_set_invalid_parameter_handler(onInvalidParameter));
  formerPureCall.set(_set_purecall_handler(onPureCall));
}

void releaseFailures() {
  release<LPTOP_LEVEL_EXCEPTION_FILTER>(onException, formerFilter.latest,
                                        SetUnhandledExceptionFilter);
  release<std::terminate_handler>(onTerminate, formerTerminate.latest, std::set_terminate);
  release<SignalHandler>(onAbort, formerAbort.latest,
                         [](SignalHandler handler) { return std::signal(SIGABRT, handler); });
  release<_invalid_parameter_handler>(onInvalidParameter, formerInvalidParameter.latest,
                                      _set_invalid_parameter_handler);
  release<_purecall_handler>(onPureCall, formerPureCall.latest, _set_purecall_handler);
}

}  // namespace marbleway::platform
