#pragma once

namespace marbleway {

/// The name of the stores' file system in SQLite's list. It is `platform::kSQLiteFileSystem` with
/// three differences: a journal that is no regular file is not opened (a pipe would block), the
/// folder of a journal that is already there is not synced again, and the absolute name of a
/// regular file stays as it is.
inline constexpr const char* kStoreFileSystem = "marbleway";

void registerStoreFileSystem();
/// No connection is open.
void unregisterStoreFileSystem();

}  // namespace marbleway
