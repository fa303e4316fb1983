#include "Marbleway/store/file_system.h"

#include <sqlite3.h>

#include <iterator>
#include <string_view>

#include "Marbleway/platform/paths.h"

namespace marbleway {
namespace {

using platform::FileKind;
using platform::kindOf;

sqlite3_vfs* systemFiles = nullptr;
sqlite3_vfs storeFiles{};

int openFile(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  constexpr int kJournals = SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL;
  // One that is only read has just been looked at by `accessFile`.
  const bool isWritten = (flags & kJournals) != 0 && (flags & SQLITE_OPEN_READWRITE) != 0;
  const FileKind kind = isWritten ? kindOf(name) : FileKind::filled;
  if (kind == FileKind::other) {
    file->pMethods = nullptr;
    return SQLITE_CANTOPEN;
  }
  // SQLite syncs the folder after opening with SQLITE_OPEN_CREATE. A rollback journal with content
  // was left by a commit, which has synced the folder: an interrupted one was deleted beforehand.
  if ((flags & SQLITE_OPEN_MAIN_JOURNAL) != 0 && kind == FileKind::filled) {
    flags &= ~SQLITE_OPEN_CREATE;
  }
  return systemFiles->xOpen(systemFiles, name, file, flags, outFlags);
}

int accessFile(sqlite3_vfs* /*vfs*/, const char* name, int flags, int* result) {
  if (flags != SQLITE_ACCESS_EXISTS) return systemFiles->xAccess(systemFiles, name, flags, result);
  *result = kindOf(name) == FileKind::filled ? 1 : 0;
  return SQLITE_OK;
}

// A store's name is absolute. SQLite's own function looks for a link in each folder of the name.
// Links of folders need not be resolved: a store and its journals are in the same folder.
int completeName(sqlite3_vfs* /*vfs*/, const char* name, int size, char* completed) {
  const std::string_view text(name);
  const FileKind kind = kindOf(name);
  if ((kind == FileKind::filled || kind == FileKind::empty) && std::ssize(text) < size) {
    completed[text.copy(completed, text.size())] = '\0';
    return SQLITE_OK;
  }
  return systemFiles->xFullPathname(systemFiles, name, size, completed);
}

}  // namespace

void registerStoreFileSystem() {
  systemFiles = sqlite3_vfs_find(platform::kSQLiteFileSystem);
  if (systemFiles == nullptr) return;
  storeFiles = *systemFiles;
  storeFiles.zName = kStoreFileSystem;
  storeFiles.xOpen = openFile;
  storeFiles.xAccess = accessFile;
  storeFiles.xFullPathname = completeName;
  sqlite3_vfs_register(&storeFiles, 0);
}

void unregisterStoreFileSystem() { sqlite3_vfs_unregister(&storeFiles); }

}  // namespace marbleway
