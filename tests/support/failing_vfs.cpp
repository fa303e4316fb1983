#include "tests/support/failing_vfs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

namespace marbleway::tests {
namespace {

FailingVfs* current = nullptr;
const sqlite3_vfs usual = *sqlite3_vfs_find("unix");

}  // namespace

struct SystemCalls {
  static bool fails(FileCall call) {
    if (current == nullptr) return false;
    const bool isStruck = (current->failure_.calls & call) != 0 && current->when_.strikes();
    if (isStruck) errno = current->failure_.error;
    return isStruck;
  }

  // Does as `kCall`, unless it fails.
  template <FileCall kKind, auto kCall, class Result, class... Arguments>
  static Result call(Arguments... arguments) {
    return fails(kKind) ? Result{-1} : static_cast<Result>(kCall(arguments...));
  }
  static int control(int file, int command, flock* lock) {
    const bool locks = command == F_SETLK && lock->l_type != F_UNLCK;
    return fails(locks ? kLock : kOther) ? -1 : fcntl(file, command, lock);
  }
  static int sync(long number, int file) {
    if (current == nullptr) return static_cast<int>(syscall(number, file));
    return fails(kSync) ? -1 : 0;
  }
  static int sleep(sqlite3_vfs* vfs, int microseconds) {
    if (current == nullptr) return usual.xSleep(vfs, microseconds);
    current->napped_ += std::chrono::microseconds(microseconds);
    current->nap_();
    return microseconds;
  }
  static int time(sqlite3_vfs* vfs, sqlite3_int64* julianMilliseconds) {
    constexpr std::chrono::milliseconds kFirstOf1970{210866760000000};
    if (current == nullptr || !current->now_)
      return usual.xCurrentTimeInt64(vfs, julianMilliseconds);
    const auto now = std::chrono::floor<std::chrono::milliseconds>(*current->now_);
    *julianMilliseconds = (now.time_since_epoch() + kFirstOf1970).count();
    return SQLITE_OK;
  }

  const char* name;
  sqlite3_syscall_ptr failing;
};

namespace {

template <class Function>
SystemCalls named(const char* name, Function* failing) {
  return {name, reinterpret_cast<sqlite3_syscall_ptr>(failing)};
}

// What SQLite looks for, and does not find, when `stat` or `access` fails, is not among them.
const std::array kCalls{
    named("open", SystemCalls::call<kOpen, ::open, int, const char*, int, int>),
    named("read", SystemCalls::call<kRead, ::read, ssize_t, int, void*, size_t>),
    named("pread", SystemCalls::call<kRead, ::pread, ssize_t, int, void*, size_t, off_t>),
    named("pread64", SystemCalls::call<kRead, ::pread, ssize_t, int, void*, size_t, off_t>),
    named("write", SystemCalls::call<kWrite, ::write, ssize_t, int, const void*, size_t>),
    named("pwrite", SystemCalls::call<kWrite, ::pwrite, ssize_t, int, const void*, size_t, off_t>),
    named("pwrite64",
          SystemCalls::call<kWrite, ::pwrite, ssize_t, int, const void*, size_t, off_t>),
    named("ftruncate", SystemCalls::call<kWrite, ::ftruncate, int, int, off_t>),
    named("fstat", SystemCalls::call<kOther, ::fstat, int, int, struct stat*>),
    named("unlink", SystemCalls::call<kOther, ::unlink, int, const char*>),
    named("fcntl", SystemCalls::control),
};

}  // namespace

// What is put in place stays there, and does as usual without this object: others copy it.
FailingVfs::FailingVfs() {
  current = this;
  for (auto* vfs = sqlite3_vfs_find(nullptr); vfs != nullptr; vfs = vfs->pNext) {
    vfs->xSleep = SystemCalls::sleep;
    vfs->xCurrentTimeInt64 = SystemCalls::time;
  }
  sqlite3_vfs* const vfs = sqlite3_vfs_find("unix");
  for (const auto& [name, failing] : kCalls) vfs->xSetSystemCall(vfs, name, failing);
}

FailingVfs::~FailingVfs() { current = nullptr; }

}  // namespace marbleway::tests

// In place of the C library's, in a program with a FailingVfs.
extern "C" int fsync(int file) { return marbleway::tests::SystemCalls::sync(SYS_fsync, file); }
extern "C" int fdatasync(int file) {
  return marbleway::tests::SystemCalls::sync(SYS_fdatasync, file);
}
