#include "Marbleway/platform/linux/fatal_signals.h"

#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <optional>

#include "Marbleway/platform/linux/crash_report.h"
#include "Marbleway/platform/linux/recoverable.h"

namespace marbleway::platform {
namespace {

using Action = struct sigaction;

// A host's handler that was installed while the library ran outlasts its end, and may call the
// library's: after a restart the two would pass a signal to each other. Then `first` takes it.
struct Chain {
  Action former{};                // what the signal is passed on to
  Action present{};               // what is installed again once the host has recovered
  std::optional<Action> first{};  // what stood there before the library's first start
  std::atomic<pid_t> thread{0};   // whose signal `former` takes; 0: none
};
constinit std::array<Chain, kFatalSignals.size()> chains{};

void onSignal(int number, siginfo_t* info, void* context);

bool isOurs(const Action& action) {
  return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == onSignal;
}

bool hasHandler(const Action& action) {
  return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

Chain& chainOf(int number) {
  const auto* const at = std::find(kFatalSignals.begin(), kFatalSignals.end(), number);
  return chains[static_cast<std::size_t>(at - kFatalSignals.begin())];
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

void queue(int number, siginfo_t* info) {
  if (syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), number, info) == 0) return;
  syscall(SYS_tgkill, getpid(), gettid(), number);
}

// The signal that comes back to this thread once the former handler of `number` has returned or
// jumped away: it stays pending while that handler runs, whose mask has it. The kernel delivers
// signals of faults before sent ones, and those in the order of their numbers. 0: none can.
int markerFor(int number, const void* context) {
  const int marker = number == SIGSYS ? SIGTRAP : SIGSYS;
  Action action{};
  sigaction(marker, nullptr, &action);
  const bool isBlocked =
      sigismember(&static_cast<const ucontext_t*>(context)->uc_sigmask, marker) == 1;
  return isOurs(action) && !isBlocked ? marker : 0;
}

void queueMarker(int marker, Chain& chain) {
  siginfo_t info{};
  info.si_signo = marker;
  info.si_code = SI_QUEUE;
  info.si_pid = getpid();
  info.si_value.sival_ptr = &chain;
  syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), marker, &info);
}

// The chain that a marker belongs to; null: the signal is none.
Chain* chainOfMarker(const siginfo_t& info) {
  if (info.si_code != SI_QUEUE || info.si_pid != getpid()) return nullptr;
  const auto at = std::ranges::find_if(
      chains, [&](const Chain& chain) { return info.si_value.sival_ptr == &chain; });
  return at != chains.end() ? &*at : nullptr;
}

// The former handler has returned and the thread goes on. A handler that has installed another
// action, such as SIG_DFL, means that to take the signal.
void resumeCapture(Chain& chain) {
  const int number = kFatalSignals[static_cast<std::size_t>(&chain - chains.data())];
  chain.thread = 0;
  withdrawReport();
  Action now{};
  sigaction(number, nullptr, &now);
  if (isOurs(now) || !isReporting()) return;
  if (now.sa_handler != chain.former.sa_handler) chain.former = now;
  sigaction(number, &chain.present, nullptr);
}

// The kernel delivers the signal, with its facts, to the former action when this handler returns:
// with the stack, the mask and the flags that belong to that action.
void passOn(int number, siginfo_t* info, void* context, Outcome outcome) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);  // until the return

  Chain& chain = chainOf(number);
  const bool isNested = chain.thread.exchange(gettid()) == gettid();
  Action next = isNested ? chain.first.value_or(Action{}) : chain.former;
  if (!hasHandler(next)) next.sa_handler = SIG_DFL;
  const int marker = outcome == Outcome::open ? markerFor(number, context) : 0;
  if (marker != 0) sigaddset(&next.sa_mask, marker);
  Action present{};
  sigaction(number, &next, &present);
  if (!isNested && present.sa_handler != next.sa_handler) chain.present = present;
  if (marker != 0) queueMarker(marker, chain);
  queue(number, info);
}

void onSignal(int number, siginfo_t* info, void* context) {
  recover();
  const int error = errno;
  if (Chain* const chain = chainOfMarker(*info)) {
    resumeCapture(*chain);
  } else {
    const Action& former = chainOf(number).former;
    const bool wasSent = info->si_code <= 0;  // rather than raised by an instruction
    if (wasSent && former.sa_handler == SIG_IGN) return;
    const auto outcome = hasHandler(former) && number != SIGABRT ? Outcome::open : Outcome::fatal;
    report({.signal = number, .code = info->si_code, .address = info->si_addr}, placeOf(context),
           outcome);
    passOn(number, info, context, outcome);
  }
  errno = error;
}

}  // namespace

void captureFatalSignals() {
  Action action{};
  action.sa_sigaction = onSignal;
  // Not deferred: a fault within the handler would end the process.
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  for (const int number : kFatalSignals) {
    Chain& chain = chainOf(number);
    Action present{};
    sigaction(number, nullptr, &present);
    if (!isOurs(present)) chain.former = present;  // in a fork's child it may be ours
    if (!chain.first) chain.first = chain.former;
    chain.present = action;
    if (!isOurs(present)) sigaction(number, &action, nullptr);
  }
}

void releaseFatalSignals() {
  for (const int number : kFatalSignals) {
    Action present{};
    sigaction(number, nullptr, &present);
    if (isOurs(present)) sigaction(number, &chainOf(number).former, nullptr);
  }
}

}  // namespace marbleway::platform
