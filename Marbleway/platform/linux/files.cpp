#include "Marbleway/platform/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <thread>

#include "Marbleway/platform/busy_budget.h"
#include "Marbleway/platform/linux/write_all.h"
#include "Marbleway/platform/paths.h"
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

bool fill(const Descriptor& file, std::string_view bytes) {
  return fchmod(file.number(), S_IRUSR | S_IWUSR) == 0 && writeAll(file.number(), bytes) &&
         fsync(file.number()) == 0;
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

FileContent readFile(const std::filesystem::path& file, std::size_t maxBytes) {
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
    if (content.bytes.size() > maxBytes) return {State::tooLarge, {}};
  }
}

DirectoryLock::DirectoryLock(const std::filesystem::path& directory)
    : directory_(openDirectory(directory)), state_(lock(directory_)) {}

// Tries again after each interval: a wait in the system would have no limit.
DirectoryLock::State DirectoryLock::lock(Handle directory) {
  if (directory < 0) return State::unsupported;
  const BusyBudget budget;
  while (flock(static_cast<int>(directory), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) return State::unsupported;
    if (!BusyBudget::wait([](auto interval) { std::this_thread::sleep_for(interval); })) {
      return State::busy;
    }
  }
  return State::held;
}

DirectoryLock::~DirectoryLock() {
  // Closing is not enough: a child of a fork has the descriptor too.
  if (isHeld()) flock(static_cast<int>(directory_), LOCK_UN);
  if (directory_ >= 0) ::close(static_cast<int>(directory_));
}

bool replaceFile(const std::filesystem::path& file, std::string_view bytes) {
  const WriteGuard guard(WriteGuard::Into::file);
  const std::filesystem::path name = std::filesystem::path(file) += ".new";
  ::unlink(name.c_str());  // left by a process that was killed
  const Descriptor temporary(::open(
      name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!temporary.isOpen()) return false;

  if (!fill(temporary, bytes) || ::rename(name.c_str(), file.c_str()) != 0) {
    ::unlink(name.c_str());
    return false;
  }
  return syncDirectory(file.parent_path());
}

bool moveFile(const std::filesystem::path& from, const std::filesystem::path& to) noexcept {
  return ::rename(from.c_str(), to.c_str()) == 0;
}

void clearFileError() noexcept { errno = 0; }
std::string fileError() { return errno != 0 ? std::generic_category().message(errno) : ""; }

FileKind kindOf(const char* name) noexcept {
  struct stat facts {};
  if (lstat(name, &facts) != 0) return FileKind::missing;
  if (!S_ISREG(facts.st_mode)) return FileKind::other;
  return facts.st_size > 0 ? FileKind::filled : FileKind::empty;
}

void createFile(const std::string& file,
                const std::function<bool(const std::string& unfinished)>& fill) {
  const DirectoryLock directory(std::filesystem::path(file).parent_path());
  if (directory.isBusy() || kindOf(file.c_str()) != FileKind::missing) return;
  const std::string unfinished = file + "-new";
  const auto remove = [&] {
    for (const char* suffix : {"", "-journal"}) ::unlink((unfinished + suffix).c_str());
  };
  if (directory.isHeld()) remove();
  {
    const Descriptor created(::open(unfinished.c_str(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                    S_IRUSR | S_IWUSR));
    if (!created.isOpen()) return;
    (void)fchmod(created.number(), S_IRUSR | S_IWUSR);  // the umask may have taken more away
  }
  // Neither replaces a file; the second is for file systems without links. The third is for those
  // without such a renaming: the lock keeps other processes of this library away.
  if (fill(unfinished) && ::link(unfinished.c_str(), file.c_str()) != 0 &&
      renameat2(AT_FDCWD, unfinished.c_str(), AT_FDCWD, file.c_str(), RENAME_NOREPLACE) != 0 &&
      directory.isHeld() && kindOf(file.c_str()) == FileKind::missing) {
    (void)moveFile(unfinished, file);
  }
  remove();
}

}  // namespace marbleway::platform
