#include <unistd.h>

#include <csignal>
#include <string>

#include "platform/linux/files.h"
#include "platform/linux/services.h"

namespace marbleway::platform {
namespace {

/// Keeps a write of this thread to a closed pipe from raising SIGPIPE in the host.
class NoBrokenPipe {
 public:
  NoBrokenPipe() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    wasPending_ = isPending();
  }
  NoBrokenPipe(const NoBrokenPipe&) = delete;
  NoBrokenPipe& operator=(const NoBrokenPipe&) = delete;
  ~NoBrokenPipe() {
    const timespec none{};
    if (!wasPending_ && isPending()) sigtimedwait(&pipe_, nullptr, &none);  // takes it away
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  static bool isPending() {
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  }

  sigset_t pipe_{}, before_{};
  bool wasPending_ = false;
};

class StandardError final : public Console {
 public:
  void writeLine(std::string_view line) override {
    // One block, so that lines of several threads and processes stay whole.
    std::string whole;
    whole.reserve(line.size() + 1);
    whole.append(line).push_back('\n');

    const NoBrokenPipe guard;
    writeAll(STDERR_FILENO, whole);
  }
};

}  // namespace

std::shared_ptr<Console> makeStandardError() { return std::make_shared<StandardError>(); }

}  // namespace marbleway::platform
