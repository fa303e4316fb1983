#pragma once

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

#include "Marbleway/platform/linux/alternate_stack.h"
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

/// Starts a thread that only fatal signals are delivered to: a host's handlers of the other signals
/// run on the host's threads. Throws std::system_error when the system has no thread left.
template <class Body>
std::thread startBackgroundThread(Body&& body) {
  const SignalsBlocked blocked;  // a thread inherits the mask of the one that starts it
  return std::thread([body = std::forward<Body>(body)]() mutable {
    giveAlternateStack();
    body();
  });
}

}  // namespace marbleway::platform
