#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>

#include "tools/inspect/store_file.h"
#include "tools/inspect/system.h"

namespace inspect {

struct SignalBlock::Mask {
  sigset_t signals{};
};

SignalBlock::SignalBlock(Kind kind) : former_(std::make_unique<Mask>()) {
  constexpr std::array kStops{SIGTSTP, SIGTTIN, SIGTTOU, 0};
  constexpr std::array kEnds{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int signal : kind == Kind::stops ? kStops : kEnds) {
    if (signal != 0) sigaddset(&blocked, signal);
  }
  pthread_sigmask(SIG_BLOCK, &blocked, &former_->signals);
}

SignalBlock::~SignalBlock() { pthread_sigmask(SIG_SETMASK, &former_->signals, nullptr); }

SharedLock::SharedLock(const std::filesystem::path& store)
    : file_(open(store.c_str(), O_RDONLY | O_CLOEXEC)) {
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0x40000002;  // the bytes that SQLite's file format keeps for shared locks
  lock.l_len = 510;
  fcntl(static_cast<int>(file_), F_OFD_SETLK, &lock);
}

SharedLock::~SharedLock() { close(static_cast<int>(file_)); }

std::filesystem::path makePrivateFolder() {
  std::string name = (std::filesystem::temp_directory_path() / "marbleway-inspect-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw ReadError(name + ": cannot be made for a copy");
  return name;
}

void ignoreBrokenPipes() { std::signal(SIGPIPE, SIG_IGN); }

}  // namespace inspect
