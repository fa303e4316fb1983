#include "Marbleway/platform/windows/crash_handlers.h"

#include <windows.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>

#include "Marbleway/platform/windows/crash_cause.h"
#include "Marbleway/platform/windows/crash_report.h"

namespace marbleway::platform {
namespace {

using SignalHandler = void (*)(int);

constinit std::atomic<LPTOP_LEVEL_EXCEPTION_FILTER> formerFilter{nullptr};
constinit std::atomic<std::terminate_handler> formerTerminate{nullptr};
constinit std::atomic<SignalHandler> formerAbort{SIG_DFL};
constinit std::atomic<_invalid_parameter_handler> formerInvalidParameter{nullptr};
constinit std::atomic<_purecall_handler> formerPureCall{nullptr};

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
  if (facts.ExceptionCode == EXCEPTION_ACCESS_VIOLATION && facts.NumberParameters >= 2) {
    cause.access = static_cast<std::int32_t>(facts.ExceptionInformation[0]);
    cause.address = facts.ExceptionInformation[1];
  }
  return cause;
}

// The run-time throws by an exception, too. Where nothing catches it, its filter continues, and
// std::terminate follows with a record of its own.
LONG WINAPI onException(EXCEPTION_POINTERS* exception) {
  recordFailure(causeOf(*exception));
  const auto former = formerFilter.load();  // it may end the process itself
  const LONG decision = former != nullptr ? former(exception) : EXCEPTION_CONTINUE_SEARCH;
  decision == EXCEPTION_CONTINUE_EXECUTION ? withdrawRecord() : awaitRow();
  return decision;
}

void onTerminate() {
  reportFatal({.caller = __builtin_return_address(0)});
  if (const auto former = formerTerminate.load()) former();
  // The caller aborts.
}

void onAbort(int number) {
  reportFatal({.code = number, .caller = __builtin_return_address(0)});
  std::signal(number, formerAbort);
  std::raise(number);
}

void onInvalidParameter(const wchar_t* expression, const wchar_t* function, const wchar_t* source,
                        unsigned line, std::uintptr_t reserved) {
  const auto former = formerInvalidParameter.load();
  if (former == nullptr && !kInvalidParameterEnds) return;
  recordFailure({.code = kInvalidParameter, .caller = __builtin_return_address(0)});
  if (former != nullptr) {
    former(expression, function, source, line, reserved);
    return withdrawRecord();  // the call returns an error
  }
  awaitRow();
  RaiseFailFastException(nullptr, nullptr, 0);
}

void onPureCall() {
  reportFatal({.code = kPureCall, .caller = __builtin_return_address(0)});
  if (const auto former = formerPureCall.load()) former();
  // The caller aborts.
}

template <class Handler, class Set>
void release(Handler ours, Handler former, Set set) {
  if (const Handler present = set(former); present != ours) set(present);
}

}  // namespace

void captureFailures() {
  formerFilter = SetUnhandledExceptionFilter(onException);
  formerTerminate = std::set_terminate(onTerminate);
  formerAbort = std::signal(SIGABRT, onAbort);
  if (formerAbort == SIG_IGN || formerAbort == SIG_ERR) std::signal(SIGABRT, formerAbort);
  formerInvalidParameter = _set_invalid_parameter_handler(onInvalidParameter);
  formerPureCall = _set_purecall_handler(onPureCall);
}

void releaseFailures() {
  release<LPTOP_LEVEL_EXCEPTION_FILTER>(onException, formerFilter, SetUnhandledExceptionFilter);
  release<std::terminate_handler>(onTerminate, formerTerminate, std::set_terminate);
  release<SignalHandler>(onAbort, formerAbort,
                         [](SignalHandler handler) { return std::signal(SIGABRT, handler); });
  release<_invalid_parameter_handler>(onInvalidParameter, formerInvalidParameter,
                                      _set_invalid_parameter_handler);
  release<_purecall_handler>(onPureCall, formerPureCall, _set_purecall_handler);
}

}  // namespace marbleway::platform
