#pragma once

#include <pthread.h>

#include <csignal>

#include "Marbleway/platform/linux/fatal_signals.h"

namespace marbleway::platform {

/// Blocks every signal but the fatal ones for the calling thread until it is destroyed. A fault
/// whose signal is blocked would end the process without any handler.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int number : kFatalSignals) sigdelset(&blocked, number);
    pthread_sigmask(SIG_SETMASK, &blocked, &former_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

 private:
  sigset_t former_{};
};

}  // namespace marbleway::platform
