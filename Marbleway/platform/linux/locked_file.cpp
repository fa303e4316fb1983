#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Marbleway/platform/crash_file.h"

namespace marbleway::platform {
namespace {

int numberOf(std::intptr_t handle) { return static_cast<int>(handle); }

}  // namespace

bool LockedFile::open(const std::string& path, bool create) {
  const int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | (create ? O_CREAT : 0);
  const int descriptor = ::open(path.c_str(), flags, S_IRUSR | S_IWUSR);
  if (descriptor < 0) return false;
  struct stat facts {};
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  // The lock belongs to the process: it ends with it, and a fork's child does not have it.
  const bool isOurs = fstat(descriptor, &facts) == 0 && S_ISREG(facts.st_mode) &&
                      fcntl(descriptor, F_SETLK, &lock) == 0;
  if (!isOurs) return ::close(descriptor), false;
  handle_ = descriptor;
  device_ = facts.st_dev;
  number_ = facts.st_ino;
  return true;
}

void LockedFile::close() {
  if (isOpen()) ::close(numberOf(handle_));
  handle_ = -1;
}

// A host that closes all descriptors may have opened a file of its own under this number.
bool LockedFile::isOpen() const {
  struct stat facts {};
  return handle_ >= 0 && fstat(numberOf(handle_), &facts) == 0 && facts.st_dev == device_ &&
         facts.st_ino == number_;
}

// Closing any descriptor of the file would end this process's lock.
bool LockedFile::isAt(const std::string& path) const {
  struct stat facts {};
  return isOpen() && lstat(path.c_str(), &facts) == 0 && facts.st_dev == device_ &&
         facts.st_ino == number_;
}

bool LockedFile::read(std::span<std::byte> bytes) const {
  return pread(numberOf(handle_), bytes.data(), bytes.size(), 0) == std::ssize(bytes);
}

bool LockedFile::write(std::size_t offset, std::span<const std::byte> bytes) const {
  return pwrite(numberOf(handle_), bytes.data(), bytes.size(), static_cast<off_t>(offset)) ==
         std::ssize(bytes);
}

}  // namespace marbleway::platform
