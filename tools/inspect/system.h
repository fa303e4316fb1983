#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

/// What each system does in its own way.
namespace inspect {

/// Blocks signals in this thread until it is destroyed; they arrive then.
class SignalBlock {
 public:
  /// Those that stop the program for a while (Ctrl-Z), or those that end it.
  enum class Kind { stops, ends };

  explicit SignalBlock(Kind kind);
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;
  ~SignalBlock();

 private:
  struct Mask;
  std::unique_ptr<Mask> former_;
};

/// Holds SQLite's shared lock on a store, under which no writer that closes its connection empties
/// and removes the write-ahead log.
class SharedLock {
 public:
  explicit SharedLock(const std::filesystem::path& store);
  SharedLock(const SharedLock&) = delete;
  SharedLock& operator=(const SharedLock&) = delete;
  ~SharedLock();

 private:
  std::intptr_t file_;
};

/// Makes a folder with a new name where temporary ones are, the user's alone; throws a ReadError.
std::filesystem::path makePrivateFolder();

/// A reader of the output that leaves does not end the program, which may have copies to remove.
void ignoreBrokenPipes();

}  // namespace inspect
