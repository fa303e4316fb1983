#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace marbleway::platform {

/// The file name of the program that runs, from the kernel.
std::string executableName();

/// The environment variable `name`; empty when it is missing, and in a set-uid program, whose
/// caller sets the environment.
std::string_view environment(const char* name);

/// Where the user's applications keep their data, absolute: $XDG_DATA_HOME, or ".local/share" in
/// the home directory.
std::filesystem::path defaultDataDirectory();

/// The name that SQLite gives to this system's files, whatever the host's default.
extern const char* const kSQLiteFileSystem;

/// What has a name; `other` is no regular file, links included. `missing` also without an answer.
enum class FileKind { missing, empty, filled, other };
FileKind kindOf(const char* name) noexcept;

/// Creates a file: `fill` is given the name of an empty one beside it, mode 0600. If it returns
/// true, that one becomes `file`, unless something has the name by then. One process at a time does
/// so; a file left by one that was killed is removed.
void createFile(const std::filesystem::path& file,
                const std::function<bool(const std::string& unfinished)>& fill);

}  // namespace marbleway::platform
