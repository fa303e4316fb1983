#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <csetjmp>
#include <csignal>

#include "Marbleway/platform/linux/crash.h"

namespace marbleway::platform {

/// Lets the fatal signals through to this thread while it lives: a fault that finds its signal
/// blocked ends the process at once.
class FatalSignalsUnblocked {
 public:
  FatalSignalsUnblocked() {
    sigset_t fatal;
    sigemptyset(&fatal);
    for (const int number : kFatalSignals) sigaddset(&fatal, number);
    pthread_sigmask(SIG_UNBLOCK, &fatal, &former_);
  }
  FatalSignalsUnblocked(const FatalSignalsUnblocked&) = delete;
  FatalSignalsUnblocked& operator=(const FatalSignalsUnblocked&) = delete;
  ~FatalSignalsUnblocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

 private:
  sigset_t former_{};
};

inline constinit std::atomic<pid_t> recoverableThread{0};
inline sigjmp_buf recoveryPoint;

/// Runs `risky`; a fatal failure of it, by a signal or std::terminate, ends it where it stands.
/// False then. Only one thread at a time attempts anything. Async-signal-safe if `risky` is.
template <class Risky>
bool runRecoverably(Risky risky) {
  const FatalSignalsUnblocked unblocked;
  recoverableThread = gettid();
  if (sigsetjmp(recoveryPoint, 1) != 0) {
    recoverableThread = 0;
    return false;
  }
  risky();
  recoverableThread = 0;
  return true;
}

/// Does not return if it is an attempt of this thread that has failed. For the handlers of
/// failures.
inline void recover() {
  if (recoverableThread == gettid()) siglongjmp(recoveryPoint, 1);
}

}  // namespace marbleway::platform
