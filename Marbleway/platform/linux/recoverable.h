#pragma once

#include <unistd.h>

#include <atomic>
#include <csetjmp>
#include <csignal>

namespace marbleway::platform {

inline constinit std::atomic<pid_t> recoverableThread{0};
inline sigjmp_buf recoveryPoint;

/// Runs `risky`; a fatal failure of it, by a signal or std::terminate, ends it where it stands.
/// False then. Only one thread at a time may call this. Async-signal-safe if `risky` is.
template <class Risky>
bool runRecoverably(Risky risky) {
  recoverableThread = gettid();
  if (sigsetjmp(recoveryPoint, 1) != 0) {
    recoverableThread = 0;
    return false;
  }
  risky();
  recoverableThread = 0;
  return true;
}

/// Does not return if this thread fails inside `runRecoverably`. For the handlers of failures.
inline void recover() {
  if (recoverableThread == gettid()) siglongjmp(recoveryPoint, 1);
}

}  // namespace marbleway::platform
