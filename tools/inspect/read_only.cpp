#include "tools/inspect/read_only.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <stdexcept>

namespace inspect {
namespace {

sqlite3_vfs* standard = nullptr;

constexpr const char* kWritableFiles = "marbleway-inspect-copies";

constexpr int kStoreFiles =
    SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_SUPER_JOURNAL;
constexpr int kWriting =
    SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_EXCLUSIVE | SQLITE_OPEN_DELETEONCLOSE;

/// False for a FIFO, a device or a folder: opening one could block, or read what is no store.
bool isRegularOrMissing(const char* name) {
  struct stat facts {};
  return name == nullptr || stat(name, &facts) != 0 || S_ISREG(facts.st_mode);
}

int openForReading(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags,
                   int* outFlags) {
  if ((flags & SQLITE_OPEN_WAL) != 0 || !isRegularOrMissing(name)) {
    file->pMethods = nullptr;
    return SQLITE_CANTOPEN;
  }
  if ((flags & kStoreFiles) != 0) flags = (flags & ~kWriting) | SQLITE_OPEN_READONLY;
  // For root, SQLite gives a store's journal the store's owner; it does so for no other kind.
  if ((flags & SQLITE_OPEN_MAIN_JOURNAL) != 0) {
    flags = (flags & ~SQLITE_OPEN_MAIN_JOURNAL) | SQLITE_OPEN_SUPER_JOURNAL;
  }
  return standard->xOpen(standard, name, file, flags, outFlags);
}

int deleteNothing(sqlite3_vfs* /*vfs*/, const char* /*name*/, int /*syncsDirectory*/) {
  return SQLITE_IOERR_DELETE;
}

}  // namespace

// Takes the place of the standard file system, also where the library asks for it by name.
void openStoresForReadingOnly() {
  standard = sqlite3_vfs_find(nullptr);
  if (standard == nullptr) throw std::runtime_error("SQLite has no file system");
  static sqlite3_vfs writable = *standard;
  writable.zName = kWritableFiles;
  static sqlite3_vfs readOnly = *standard;
  readOnly.xOpen = openForReading;
  readOnly.xDelete = deleteNothing;
  if (sqlite3_vfs_register(&writable, 0) != SQLITE_OK ||
      sqlite3_vfs_register(&readOnly, 1) != SQLITE_OK) {
    throw std::runtime_error("SQLite accepts no other file system");
  }
}

const char* writableFiles() { return kWritableFiles; }

}  // namespace inspect
