#include "Marbleway/platform/linux/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <thread>

#include "Marbleway/platform/write_guard.h"

namespace marbleway::platform {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (isOpen()) ::close(number_);
  }

  bool isOpen() const { return number_ >= 0; }
  int number() const { return number_; }

 private:
  int number_;
};

int openDirectory(const std::filesystem::path& directory) {
  return ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

/// Not by waiting in the system, which has no end: by asking again and again.
bool lockSoon(int descriptor) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::seconds kBusyTimeout{2};
  constexpr std::chrono::milliseconds kRetryInterval{1};
  const auto deadline = Clock::now() + kBusyTimeout;
  while (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    if ((errno != EWOULDBLOCK && errno != EINTR) || Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kRetryInterval);
  }
  return true;
}

bool fill(const Descriptor& file, std::string_view bytes) {
  return fchmod(file.number(), S_IRUSR | S_IWUSR) == 0 && ftruncate(file.number(), 0) == 0 &&
         writeAll(file.number(), bytes) && fsync(file.number()) == 0;
}

bool syncDirectory(const std::filesystem::path& directory) {
  const Descriptor folder(openDirectory(directory));
  return folder.isOpen() && fsync(folder.number()) == 0;
}

}  // namespace

bool writeAll(int descriptor, std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

FileContent readFile(const std::filesystem::path& file) {
  using State = FileContent::State;
  // A pipe in the file's place is opened without waiting for its other end.
  const Descriptor source(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!source.isOpen()) return {errno == ENOENT ? State::missing : State::unavailable, {}};
  struct stat facts {};
  if (fstat(source.number(), &facts) != 0 || !S_ISREG(facts.st_mode)) return {};

  FileContent content{State::read, {}};
  std::array<char, 4096> block{};
  for (;;) {
    const ssize_t got = ::read(source.number(), block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return {};
    if (got == 0) return content;
    content.bytes.append(block.data(), static_cast<std::size_t>(got));
  }
}

DirectoryLock::DirectoryLock(const std::filesystem::path& directory)
    : directory_(openDirectory(directory)), isHeld_(directory_ >= 0 && lockSoon(directory_)) {}

DirectoryLock::~DirectoryLock() {
  // In so many words: a child of a fork has the descriptor too, and keeps it open.
  if (isHeld_) flock(directory_, LOCK_UN);
  if (directory_ >= 0) ::close(directory_);
}

bool replaceFile(const std::filesystem::path& file, std::string_view bytes) {
  const WriteGuard guard(WriteGuard::Into::file);
  // Always the same name: what a killed process leaves there, the next writing takes away.
  const std::filesystem::path name = std::filesystem::path(file) += ".new";
  const Descriptor temporary(
      ::open(name.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!temporary.isOpen()) return false;

  if (!fill(temporary, bytes) || ::rename(name.c_str(), file.c_str()) != 0) {
    ::unlink(name.c_str());
    return false;
  }
  return syncDirectory(file.parent_path());
}

}  // namespace marbleway::platform
