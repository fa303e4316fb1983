#include "tools/inspect/read_only.h"

#include <sqlite3.h>

#include <stdexcept>

namespace inspect {
namespace {

sqlite3_vfs* usual = nullptr;

constexpr int kStoreFiles =
    SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_SUPER_JOURNAL;
constexpr int kWriting =
    SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_EXCLUSIVE | SQLITE_OPEN_DELETEONCLOSE;

int openForReading(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags,
                   int* outFlags) {
  if ((flags & SQLITE_OPEN_WAL) != 0) {
    file->pMethods = nullptr;
    return SQLITE_CANTOPEN;
  }
  if ((flags & kStoreFiles) != 0) flags = (flags & ~kWriting) | SQLITE_OPEN_READONLY;
  // For root, SQLite gives a store's journal the store's owner; it does so for no other kind.
  if ((flags & SQLITE_OPEN_MAIN_JOURNAL) != 0) {
    flags = (flags & ~SQLITE_OPEN_MAIN_JOURNAL) | SQLITE_OPEN_SUPER_JOURNAL;
  }
  return usual->xOpen(usual, name, file, flags, outFlags);
}

int deleteNothing(sqlite3_vfs* /*vfs*/, const char* /*name*/, int /*syncsDirectory*/) {
  return SQLITE_IOERR_DELETE;
}

}  // namespace

void openStoresForReadingOnly() {
  usual = sqlite3_vfs_find(nullptr);
  if (usual == nullptr) throw std::runtime_error("SQLite knows no file system");
  static sqlite3_vfs readOnly = *usual;
  readOnly.zName = "marbleway-inspect";
  readOnly.xOpen = openForReading;
  readOnly.xDelete = deleteNothing;
  if (sqlite3_vfs_register(&readOnly, 1) != SQLITE_OK) {
    throw std::runtime_error("SQLite takes no file system");
  }
}

const char* writableFiles() { return usual->zName; }

}  // namespace inspect
