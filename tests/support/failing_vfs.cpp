#include "tests/support/failing_vfs.h"

namespace marbleway::tests {
namespace {

sqlite3_vfs* usual = nullptr;
FailingVfs* current = nullptr;

}  // namespace

// The usual file stands behind it in the memory that SQLite supplies.
struct FailingVfs::File : sqlite3_file {
  sqlite3_file* usualFile() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

struct FailingVfs::Calls {
  static bool fails(FileCall call) {
    return (current->failure_.calls & call) != 0 && current->when_.strikes();
  }

  // A method of files that does as the usual file's, unless it fails.
  template <FileCall kCall, auto kMethod, class... Arguments>
  static int onFile(sqlite3_file* file, Arguments... arguments) {
    if (fails(kCall)) return current->failure_.code;
    sqlite3_file* behind = static_cast<File*>(file)->usualFile();
    return (behind->pMethods->*kMethod)(behind, arguments...);
  }
  template <auto kMethod, class... Arguments>
  static int alwaysOnFile(sqlite3_file* file, Arguments... arguments) {
    sqlite3_file* behind = static_cast<File*>(file)->usualFile();
    return (behind->pMethods->*kMethod)(behind, arguments...);
  }
  static int sync(sqlite3_file* /*file*/, int /*flags*/) {
    return fails(kSync) ? current->failure_.code : SQLITE_OK;
  }

  static int open(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags,
                  int* outFlags);
  static int remove(sqlite3_vfs* /*vfs*/, const char* name, int /*syncsDirectory*/) {
    return fails(kDelete) ? current->failure_.code : usual->xDelete(usual, name, 0);
  }
  static int access(sqlite3_vfs* /*vfs*/, const char* name, int flags, int* result) {
    return fails(kAccess) ? current->failure_.code : usual->xAccess(usual, name, flags, result);
  }
  static int sleep(sqlite3_vfs* /*vfs*/, int microseconds) {
    current->napped_ += std::chrono::microseconds(microseconds);
    current->nap_();
    return microseconds;
  }
  static int time(sqlite3_vfs* /*vfs*/, sqlite3_int64* julianMilliseconds) {
    constexpr std::chrono::milliseconds kFirstOf1970{210866760000000};
    if (!current->now_) return usual->xCurrentTimeInt64(usual, julianMilliseconds);
    const auto now = std::chrono::floor<std::chrono::milliseconds>(*current->now_);
    *julianMilliseconds = (now.time_since_epoch() + kFirstOf1970).count();
    return SQLITE_OK;
  }

  static const sqlite3_io_methods methods;
  static inline sqlite3_vfs vfs{};
};

// The first version's methods do: neither shared memory nor mapped files.
const sqlite3_io_methods FailingVfs::Calls::methods = [] {
  using Methods = sqlite3_io_methods;
  Methods made{};
  made.iVersion = 1;
  made.xClose = alwaysOnFile<&Methods::xClose>;
  made.xRead = onFile<kRead, &Methods::xRead>;
  made.xWrite = onFile<kWrite, &Methods::xWrite>;
  made.xTruncate = onFile<kTruncate, &Methods::xTruncate>;
  made.xSync = sync;
  made.xFileSize = onFile<kSize, &Methods::xFileSize>;
  made.xLock = onFile<kLock, &Methods::xLock>;
  made.xUnlock = onFile<kUnlock, &Methods::xUnlock>;
  made.xCheckReservedLock = onFile<kLock, &Methods::xCheckReservedLock>;
  made.xFileControl = alwaysOnFile<&Methods::xFileControl>;
  made.xSectorSize = alwaysOnFile<&Methods::xSectorSize>;
  made.xDeviceCharacteristics = alwaysOnFile<&Methods::xDeviceCharacteristics>;
  return made;
}();

int FailingVfs::Calls::open(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags,
                            int* outFlags) {
  file->pMethods = nullptr;
  if (fails(kOpen)) return current->failure_.code;
  const int result =
      usual->xOpen(usual, name, static_cast<File*>(file)->usualFile(), flags, outFlags);
  if (result == SQLITE_OK) file->pMethods = &methods;
  return result;
}

FailingVfs::FailingVfs() {
  usual = sqlite3_vfs_find(nullptr);
  current = this;
  Calls::vfs = *usual;
  Calls::vfs.zName = "failing";
  Calls::vfs.szOsFile = static_cast<int>(sizeof(File)) + usual->szOsFile;
  Calls::vfs.xOpen = Calls::open;
  Calls::vfs.xDelete = Calls::remove;
  Calls::vfs.xAccess = Calls::access;
  Calls::vfs.xSleep = Calls::sleep;
  Calls::vfs.xCurrentTimeInt64 = Calls::time;
  sqlite3_vfs_register(&Calls::vfs, 1);
}

FailingVfs::~FailingVfs() {
  sqlite3_vfs_register(usual, 1);
  sqlite3_vfs_unregister(&Calls::vfs);
}

}  // namespace marbleway::tests
