#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

#include "tests/support/failing_vfs.h"

namespace marbleway::tests {
namespace {

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
  if (currentVfs() == nullptr) return static_cast<int>(syscall(number, file));
  return fails(kSync) ? -1 : 0;
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

void interceptCalls() {
  sqlite3_vfs* const vfs = sqlite3_vfs_find("unix");
  for (const auto& [name, failing] : kCalls) vfs->xSetSystemCall(vfs, name, failing);
}

}  // namespace marbleway::tests

// In place of the C library's, in a program with a FailingVfs.
extern "C" int fsync(int file) { return marbleway::tests::sync(SYS_fsync, file); }
extern "C" int fdatasync(int file) { return marbleway::tests::sync(SYS_fdatasync, file); }
