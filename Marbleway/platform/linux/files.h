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

/// The right to change the files of a directory: of all who ask for it, one at a time has it, in
/// this process or another. It ends with this object, or with the process; a child that the process
/// forks meanwhile has no share in it.
class DirectoryLock {
 public:
  /// Waits two seconds at most, in naps of a millisecond: behind a process that is stuck with it,
  /// or where the file system knows no such right, it is then not had.
  explicit DirectoryLock(const std::filesystem::path& directory);
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;
  ~DirectoryLock();

  bool isHeld() const { return isHeld_; }

 private:
  const int directory_;
  const bool isHeld_;
};

/// Puts a file of these bytes, mode 0600, in the place of `file`: a process killed meanwhile, or
/// power lost, leaves the old file or the new one. False when that failed; then it leaves no
/// temporary file. `file` is absolute, and the caller holds its directory's lock.
bool replaceFile(const std::filesystem::path& file, std::string_view bytes);

}  // namespace marbleway::platform
