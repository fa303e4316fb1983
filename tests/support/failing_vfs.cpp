#include "tests/support/failing_vfs.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace marbleway::tests {
namespace {

constinit thread_local FailingVfs* current = nullptr;
const sqlite3_vfs usual = *sqlite3_vfs_find("unix");

// Does as `kCall`, unless it fails.
template <Call kKind, auto kCall, class Result, class... Arguments>
Result call(Arguments... arguments) {
  return fails(kKind) ? Result{-1} : static_cast<Result>(kCall(arguments...));
}
int control(int file, int command, flock* lock) {
  const bool locks = command == F_SETLK && lock->l_type != F_UNLCK;
  return fails(locks ? kLock : kOther) ? -1 : fcntl(file, command, lock);
}
int sync(long number, int file) {
  if (current == nullptr) return static_cast<int>(syscall(number, file));
  return fails(kSync) ? -1 : 0;
}
int sleep(sqlite3_vfs* vfs, int microseconds) {
  if (current == nullptr) return usual.xSleep(vfs, microseconds);
  current->slept += std::chrono::microseconds(microseconds);
  current->onSleep();
  return microseconds;
}
int time(sqlite3_vfs* vfs, sqlite3_int64* julianMilliseconds) {
  constexpr std::chrono::milliseconds kFirstOf1970{210866760000000};
  if (current == nullptr || !current->now) return usual.xCurrentTimeInt64(vfs, julianMilliseconds);
  const auto now = std::chrono::floor<std::chrono::milliseconds>(*current->now);
  *julianMilliseconds = (now.time_since_epoch() + kFirstOf1970).count();
  return SQLITE_OK;
}

sqlite3_syscall_ptr pointer(auto* function) {
  return reinterpret_cast<sqlite3_syscall_ptr>(function);
}

// What SQLite looks for, and does not find, when `stat` or `access` fails, is not among them.
const std::pair<const char*, sqlite3_syscall_ptr> kCalls[] = {
    {"open", pointer(call<kOpen, ::open, int, const char*, int, int>)},
    {"read", pointer(call<kRead, ::read, ssize_t, int, void*, size_t>)},
    {"pread", pointer(call<kRead, ::pread, ssize_t, int, void*, size_t, off_t>)},
    {"pread64", pointer(call<kRead, ::pread, ssize_t, int, void*, size_t, off_t>)},
    {"write", pointer(call<kWrite, ::write, ssize_t, int, const void*, size_t>)},
    {"pwrite", pointer(call<kWrite, ::pwrite, ssize_t, int, const void*, size_t, off_t>)},
    {"pwrite64", pointer(call<kWrite, ::pwrite, ssize_t, int, const void*, size_t, off_t>)},
    {"ftruncate", pointer(call<kWrite, ::ftruncate, int, int, off_t>)},
    {"fstat", pointer(call<kOther, ::fstat, int, int, struct stat*>)},
    {"unlink", pointer(call<kOther, ::unlink, int, const char*>)},
    {"fcntl", pointer(control)},
};

}  // namespace

// What is put in place stays there, and does as usual without this object: others copy it.
FailingVfs::FailingVfs() {
  current = this;
  for (auto* vfs = sqlite3_vfs_find(nullptr); vfs != nullptr; vfs = vfs->pNext) {
    vfs->xSleep = sleep;
    vfs->xCurrentTimeInt64 = time;
  }
  sqlite3_vfs* const vfs = sqlite3_vfs_find("unix");
  for (const auto& [name, failing] : kCalls) vfs->xSetSystemCall(vfs, name, failing);
}

FailingVfs::~FailingVfs() { current = nullptr; }

bool fails(Call call) {
  if (current == nullptr || (current->failure.calls & call) == 0) return false;
  const int count = ++current->failure.counted, nth = current->failure.nth;
  const bool isStruck = nth > 0 && (count == nth || (count > nth && current->failure.lasts));
  if (isStruck) errno = current->failure.error;
  return isStruck;
}

}  // namespace marbleway::tests

// In place of the C library's, in a program with a FailingVfs.
extern "C" int fsync(int file) { return marbleway::tests::sync(SYS_fsync, file); }
extern "C" int fdatasync(int file) { return marbleway::tests::sync(SYS_fdatasync, file); }
