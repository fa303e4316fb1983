#pragma once

namespace inspect {

/// From here on SQLite opens stores and journals for reading only, whoever in this process asks it
/// to, and deletes none. A store in write-ahead mode, which the library never makes, cannot be
/// opened: reading it would write beside it. Called once, before other threads use SQLite.
void openStoresForReadingOnly();

/// The name of the file system, for SQLite, through which a private copy is written. Asked for
/// after the other.
const char* writableFiles();

}  // namespace inspect
