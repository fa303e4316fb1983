#include "Marbleway/platform/linux/fatal_signals.h"

#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <csignal>

#include "Marbleway/platform/linux/crash_reporter.h"
#include "Marbleway/platform/linux/recoverable.h"

namespace marbleway::platform {
namespace {

using Action = struct sigaction;

constinit std::array<Action, kFatalSignals.size()> formerActions{};

const Action& formerAction(int number) {
  const auto* at = std::find(kFatalSignals.begin(), kFatalSignals.end(), number);
  return formerActions.at(static_cast<std::size_t>(at - kFatalSignals.begin()));
}

/// Where the thread stood when the signal came. A function that has just been called has its
/// caller's address where the architecture puts it.
Place placeOf(void* context) {
  auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
  return {std::bit_cast<const void*>(registers.gregs[REG_RIP]),
          std::bit_cast<const void* const*>(registers.gregs[REG_RSP])};
#elif defined(__aarch64__)
  return {std::bit_cast<const void*>(registers.pc),
          reinterpret_cast<const void* const*>(&registers.regs[30])};
#else
  (void)registers;
  return {};  // the frames then begin with the handler's own
#endif
}

/// Ends the process by the signal, with the facts that the kernel gave.
void endProcess(int number, siginfo_t* info) {
  Action byDefault{};
  byDefault.sa_handler = SIG_DFL;
  sigaction(number, &byDefault, nullptr);
  syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), number, info);
}

/// Calls a handler in the circumstances in which the kernel would have called it.
void callHandler(const Action& action, int number, siginfo_t* info, void* context) {
  Action next = action;
  if ((action.sa_flags & static_cast<int>(SA_RESETHAND)) != 0) next.sa_handler = SIG_DFL;
  sigaction(number, &next, nullptr);

  sigset_t blocked = action.sa_mask;  // until the return from this signal
  if ((action.sa_flags & SA_NODEFER) == 0) sigaddset(&blocked, number);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);

  if ((action.sa_flags & SA_SIGINFO) != 0) {
    action.sa_sigaction(number, info, context);
  } else {
    action.sa_handler(number);
  }
}

void onSignal(int number, siginfo_t* info, void* context) {
  recover();
  const Action& former = formerAction(number);
  const bool isIgnored = former.sa_handler == SIG_IGN;
  const bool wasSent = info->si_code <= 0;  // rather than raised by an instruction
  if (isIgnored && wasSent) return;

  const int error = errno;
  report({.signal = number, .code = info->si_code, .address = info->si_addr, .exception = nullptr},
         placeOf(context));
  if (former.sa_handler == SIG_DFL || isIgnored) {
    endProcess(number, info);
  } else {
    callHandler(former, number, info, context);
  }
  errno = error;
}

}  // namespace

void reportFatalSignals() {
  for (std::size_t i = 0; i < kFatalSignals.size(); ++i) {
    sigaction(kFatalSignals.at(i), nullptr, &formerActions.at(i));
  }
  Action action{};
  action.sa_sigaction = onSignal;
  // Not deferred: a fault within the handler would end the process unreported.
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  for (const int number : kFatalSignals) sigaction(number, &action, nullptr);
}

}  // namespace marbleway::platform
