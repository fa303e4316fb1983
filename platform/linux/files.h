#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace marbleway::platform {

/// Writes all of `bytes` to `descriptor`, in one `write` where the system takes them at once.
/// False when a part could not be written. Async-signal-safe.
bool writeAll(int descriptor, std::string_view bytes) noexcept;

/// What a look at a regular file brought.
struct FileContent {
  enum class State { read, missing, unavailable };
  State state = State::unavailable;  // which it is for anything but a regular file, too
  std::string bytes;
};
FileContent readFile(const std::filesystem::path& file);

/// Puts a file of these bytes, mode 0600, in the place of `file`: a process killed meanwhile, or
/// power lost, leaves the old file or the new one. False when that failed, or another process is
/// at it; then this one leaves no temporary file. `file` is absolute.
bool replaceFile(const std::filesystem::path& file, std::string_view bytes);

}  // namespace marbleway::platform
