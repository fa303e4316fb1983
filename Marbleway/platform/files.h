#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace marbleway::platform {

/// The content of a regular file.
struct FileContent {
  /// `unavailable`: not readable now, or no regular file.
  enum class State { read, missing, tooLarge, unavailable };
  State state = State::unavailable;
  std::string bytes{};
};
FileContent readFile(const std::filesystem::path& file, std::size_t maxBytes);

/// The lock on a directory's files: one holder at a time, in this process or another. It ends with
/// this object, or with the process; a child of a fork has no share in it.
class DirectoryLock {
 public:
  /// Waits at most as long as the thread's `BusyBudget` allows.
  explicit DirectoryLock(const std::filesystem::path& directory);
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;
  ~DirectoryLock();

  /// True when another holder did not release it in time. False where the directory is missing, or
  /// its file system has no locks: then nothing is locked.
  bool isBusy() const { return state_ == State::busy; }
  bool isHeld() const { return state_ == State::held; }

 private:
  enum class State { held, busy, unsupported };
  using Handle = std::intptr_t;  // the system's
  static State lock(Handle directory);

  const Handle directory_;
  const State state_;
};

/// Replaces `file` by one of these bytes, the user's alone: a process killed meanwhile, or power
/// lost, leaves the old file or the new one. False when that failed; then no temporary file is
/// left. `file` is absolute, and the caller holds its directory's lock.
bool replaceFile(const std::filesystem::path& file, std::string_view bytes);

/// Renames a file, in the place of what has the new name.
bool moveFile(const std::filesystem::path& from, const std::filesystem::path& to) noexcept;

///@{
/// Why the system refused one of these functions on this thread since the last `clearFileError`;
/// empty if it has not.
void clearFileError() noexcept;
std::string fileError();
///@}

}  // namespace marbleway::platform
