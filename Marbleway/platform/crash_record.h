#pragma once

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
  std::int32_t signal, code;  // what the system names a failure by; signal 0: std::terminate
  std::uint32_t depth, moduleCount;
  std::uint64_t address;                  // which a failing access was to
  std::int64_t time;                      // milliseconds since 1970, UTC
  std::array<char, 64> sessionID;         // empty: the guards refused
  std::array<char, 256> type;             // of the exception, mangled; empty: none
  std::array<char, 512> reason;           // of the exception
  std::array<std::uint64_t, 100> frames;  // innermost first
  std::array<Module, 32> modules;         // those that hold frames
};

/// Empties `record`. Async-signal-safe, as the next three are.
void clear(CrashRecord& record);

/// Copies what fits, with a NUL.
void copyText(std::span<char> to, const char* from);

/// Notes this instant.
void recordTime(CrashRecord& record);

/// Notes the modules of the record's frames. It takes no lock of the loader. By each system.
void findModules(CrashRecord& record);

/// The text of a failure that is no std::terminate, such as
/// "Signal 11 (SIGSEGV): Segmentation fault at address 0x10". By each system.
std::string causeOf(const CrashRecord& record);

/// Where the names of functions come from: this process, or nowhere, for another's addresses.
enum class Names { ofThisProcess, none };

/// The texts of a crash: "std::runtime_error: no space left" or its cause, and its frames, a line
/// each.
Failure failureOf(const CrashRecord& record, Names names);

/// Whether it is whole, of this version, and a crash that has no row.
bool isUnreported(const CrashRecord& record);

}  // namespace marbleway::platform
