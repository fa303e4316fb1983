#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace marbleway::platform {

/// The same path in UTF-8, which SQLite's names are in, and back. Throws where it is no text of
/// Unicode and the system's names are.
inline std::string utf8Of(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}
inline std::filesystem::path pathFrom(std::string_view text) {
  return std::u8string(text.begin(), text.end());
}

/// `path` from the working directory on, in the form in which the system takes paths of any length.
std::filesystem::path absolutePath(const std::filesystem::path& path);

/// The file name of the program that runs, from the system.
std::string executableName();

/// The environment variable `name`; empty when it is missing, and in a program with more rights
/// than its caller, who sets the environment.
std::string_view environment(const char* name);

/// Where the system has the user's applications put their data; absolute.
std::filesystem::path defaultDataDirectory();

/// The name that SQLite gives to this system's files, whatever the host's default.
extern const char* const kSQLiteFileSystem;

/// What has a name, in UTF-8; `other` is no regular file, links included. `missing` also without an
/// answer.
enum class FileKind { missing, empty, filled, other };
FileKind kindOf(const char* name) noexcept;

/// Creates a file: `fill` is given the name of an empty one beside it, the user's alone. If it
/// returns true, that one becomes `file`, unless something has the name by then. One process at a
/// time does so; a file left by one that was killed is removed.
void createFile(const std::string& file,
                const std::function<bool(const std::string& unfinished)>& fill);

}  // namespace marbleway::platform
