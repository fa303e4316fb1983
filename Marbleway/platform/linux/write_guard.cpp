#include "Marbleway/platform/write_guard.h"

#include <sys/resource.h>

#include <array>
#include <csignal>
#include <ctime>

namespace marbleway::platform {
namespace {

// What a failing write raises: on a closed pipe, on a file at its limit.
constexpr std::array kRaised{SIGPIPE, SIGXFSZ};

bool canRaise(WriteGuard::Into into) {
  rlimit limit{};
  return into == WriteGuard::Into::pipe || getrlimit(RLIMIT_FSIZE, &limit) != 0 ||
         limit.rlim_cur != RLIM_INFINITY;
}

sigset_t pendingSignals() {
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  return pending;
}

}  // namespace

struct WriteGuard::Signals {
  sigset_t mask{}, pending{};
};

WriteGuard::WriteGuard(Into into)
    : before_(canRaise(into) ? std::make_unique<Signals>() : nullptr) {
  if (!before_) return;
  sigset_t raised;
  sigemptyset(&raised);
  for (const int number : kRaised) sigaddset(&raised, number);
  pthread_sigmask(SIG_BLOCK, &raised, &before_->mask);
  before_->pending = pendingSignals();
}

WriteGuard::~WriteGuard() {
  if (!before_) return;
  const sigset_t pending = pendingSignals();
  for (const int number : kRaised) {
    // One that was pending before is the host's, and stays.
    if (sigismember(&pending, number) != 1 || sigismember(&before_->pending, number) == 1) continue;
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, number);
    const timespec none{};
    sigtimedwait(&one, nullptr, &none);  // takes it away
  }
  pthread_sigmask(SIG_SETMASK, &before_->mask, nullptr);
}

}  // namespace marbleway::platform
