#include "tests/support/failing_vfs.h"

#include <sqlite3.h>

#include <cerrno>

namespace marbleway::tests {
namespace {

constinit thread_local FailingVfs* current = nullptr;
const sqlite3_vfs usual = *sqlite3_vfs_find(nullptr);

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

}  // namespace

// What is put in place stays there, and does as usual without this object: others copy it.
FailingVfs::FailingVfs() {
  current = this;
  for (auto* vfs = sqlite3_vfs_find(nullptr); vfs != nullptr; vfs = vfs->pNext) {
    vfs->xSleep = sleep;
    vfs->xCurrentTimeInt64 = time;
  }
  interceptCalls();
}

FailingVfs::~FailingVfs() { current = nullptr; }

FailingVfs* currentVfs() { return current; }

bool fails(Call call) {
  if (current == nullptr || (current->failure.calls & call) == 0) return false;
  const int count = ++current->failure.counted, nth = current->failure.nth;
  const bool isStruck = nth > 0 && (count == nth || (count > nth && current->failure.lasts));
  if (isStruck) errno = current->failure.error;
  return isStruck;
}

}  // namespace marbleway::tests
