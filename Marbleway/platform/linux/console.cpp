#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "Marbleway/platform/linux/write_all.h"
#include "Marbleway/platform/services.h"
#include "Marbleway/platform/write_guard.h"

namespace marbleway::platform {
namespace {

/// Writes what standard error takes at once.
void writeNow(mode_t mode, std::string_view bytes) {
  if (S_ISREG(mode)) return (void)writeAll(STDERR_FILENO, bytes);
  if (S_ISSOCK(mode)) {
    (void)!::send(STDERR_FILENO, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return;
  }
  // Opened again: O_NONBLOCK on the host's own descriptor would hold for the host's writes too.
  const int own = ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (own >= 0) {
    (void)!::write(own, bytes.data(), bytes.size());
    ::close(own);
    return;
  }
  // It may belong to another user. A pipe that is ready takes PIPE_BUF bytes.
  pollfd ready{STDERR_FILENO, POLLOUT, 0};
  if (::poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT) != 0 && bytes.size() <= PIPE_BUF) {
    (void)!::write(STDERR_FILENO, bytes.data(), bytes.size());
  }
}

class StandardError final : public Console {
 public:
  StandardError() {
    struct stat facts {};
    const int flags = fcntl(STDERR_FILENO, F_GETFD);
    isThere_ = flags >= 0 && (flags & FD_CLOEXEC) == 0 && fstat(STDERR_FILENO, &facts) == 0;
    device_ = facts.st_dev;
    inode_ = facts.st_ino;
  }

  void writeLine(std::string_view line) override {
    struct stat facts {};
    if (!isThere_ || fstat(STDERR_FILENO, &facts) != 0 || facts.st_dev != device_ ||
        facts.st_ino != inode_) {
      return;
    }
    // One block, so that lines of several threads and processes stay whole.
    std::string whole;
    whole.reserve(line.size() + 1);
    whole.append(line).push_back('\n');

    const WriteGuard guard(WriteGuard::Into::pipe);
    writeNow(facts.st_mode, whole);
  }

 private:
  // What the descriptor referred to at first: its number may be closed and used for a file of the
  // host's. A program's own files are mostly closed on exec; standard error never is.
  bool isThere_ = false;
  dev_t device_{};
  ino_t inode_{};
};

}  // namespace

std::shared_ptr<Console> makeStandardError() { return std::make_shared<StandardError>(); }

}  // namespace marbleway::platform
