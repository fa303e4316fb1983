#pragma once

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace marbleway::platform {

/// Blocks every signal for the calling thread while it lives.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

 private:
  sigset_t former_{};
};

/// Starts a thread that no signal is delivered to: a host's handlers run on the host's threads.
/// Throws std::system_error when the system has no thread left.
template <class Body>
std::thread startBackgroundThread(Body&& body) {
  const SignalsBlocked blocked;  // a thread inherits the mask of the one that starts it
  return std::thread(std::forward<Body>(body));
}

}  // namespace marbleway::platform
