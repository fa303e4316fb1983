#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "Marbleway/platform/crash_hook.h"
#include "Marbleway/platform/crash_record.h"

namespace marbleway::platform {

/// A regular file that no other process can open in this way until this one has ended, even if it
/// is killed. By each system.
class LockedFile {
 public:
  /// Opens the file at `path`; `create`: makes one of the user's own if there is none. False when
  /// it is another's, or no regular file.
  bool open(const std::string& path, bool create);
  void close();
  /// False once a host has closed the descriptor.
  bool isOpen() const;
  /// Whether it is the file at `path`, which must then not be opened once more.
  bool isAt(const std::string& path) const;

  /// False when there are fewer bytes, or not all could be written. Async-signal-safe.
  bool read(std::span<std::byte> bytes) const;
  bool write(std::size_t offset, std::span<const std::byte> bytes) const;

 private:
  std::intptr_t handle_ = -1;
  std::uint64_t device_ = 0, number_ = 0;
};

/// The record of this process: one of 32 files of a directory, locked as long as the process runs.
/// Files that hold a record without a row, or that are no regular files, are left alone.
class CrashFile {
 public:
  /// Opens, sizes and empties a file. False when none is free or can be written.
  bool open(const std::string& directory);
  void close() { file_.close(); }
  /// Writes by system calls only. Does nothing if a host has closed the descriptor.
  void write(const CrashRecord& record) const;
  void writeState(CrashRecord::State state) const;

  /// Reports each record of `directory` whose process has ended before it had a row.
  void reportEarlier(const std::string& directory, FailureHandler handler) const;

 private:
  LockedFile file_;
};

}  // namespace marbleway::platform
