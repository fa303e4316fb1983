#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "Marbleway/platform/crash_hook.h"

namespace marbleway::platform {

/// One crash, as the failing thread writes it. Texts end with a NUL.
struct CrashRecord {
  enum class State : std::uint32_t { empty, withoutRow, withRow };
  struct Module {
    std::uint64_t base, begin, end;  // begin and end: of its code
    std::array<char, 48> name;       // without folders, cut if longer
  };

  std::array<char, 8> format;
  State state;
  std::int32_t signal, code;  // signal 0: std::terminate
  std::uint32_t depth, moduleCount;
  std::uint64_t address;                  // the signal's si_addr
  std::int64_t time;                      // milliseconds since 1970, UTC
  std::array<char, 64> sessionID;         // empty: the guards refused
  std::array<char, 256> type;             // of the exception, mangled; empty: none
  std::array<char, 512> reason;           // of the exception
  std::array<std::uint64_t, 100> frames;  // innermost first
  std::array<Module, 32> modules;         // those that hold frames
};

/// Empties `record`. Async-signal-safe, as the next two are.
void clear(CrashRecord& record);

/// Copies what fits, with a NUL.
void copyText(std::span<char> to, const char* from);

/// Notes the modules of the record's frames. System calls only: the kernel's map is read, not the
/// loader's list.
void findModules(CrashRecord& record);

/// Where the names of functions come from: this process, or nowhere, for another's addresses.
enum class Names { ofThisProcess, none };

/// The texts of a crash: "std::runtime_error: no space left" or
/// "Signal 11 (SIGSEGV): Segmentation fault at address 0x10", and its frames, a line each.
Failure failureOf(const CrashRecord& record, Names names);

/// The record of this process: one of 32 files of a directory, locked as long as the process runs.
/// Files that hold a record without a row, or that are no regular files, are left alone.
class CrashFile {
 public:
  /// Opens, sizes and empties a file. False when none is free or can be written.
  bool open(const std::string& directory);
  void close();
  /// Writes by system calls only. Does nothing if a host has closed the descriptor.
  void write(const CrashRecord& record) const;
  void writeState(CrashRecord::State state) const;

  /// Reports each record of `directory` whose process has ended before it had a row.
  void reportEarlier(const std::string& directory, FailureHandler handler) const;

 private:
  bool isOpen() const;

  int descriptor_ = -1;
  dev_t device_ = 0;
  ino_t file_ = 0;
};

}  // namespace marbleway::platform
