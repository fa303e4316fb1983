#pragma once

namespace inspect {

/// Registers the file system for SQLite that is the default from here on: it opens regular files
/// only, stores and journals for reading only, and deletes none. A store in write-ahead mode cannot
/// be opened through it, since reading one writes beside it. Called once, before other threads use
/// SQLite.
void openStoresForReadingOnly();

/// The name of the file system through which a private copy is written.
const char* writableFiles();

}  // namespace inspect
