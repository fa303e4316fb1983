#pragma once

#include <span>
#include <string_view>

namespace marbleway::tests {

/// Starts the library and a session on the calling thread.
void startHere();

/// A way in which a process with the library fails, and what becomes of it.
struct Crash {
  const char* name;
  void (*fail)();
  const char* end;          // as `Child::wait` names it
  const char* description;  // the row begins with it; null: there is no row
  const char* function;     // a part of the row's call stack
  void (*before)() = [] {};
  void (*start)() = startHere;
};
std::span<const Crash> crashes();

/// Starts the library with its stores in `directory` and fails as the crash `name` does, at one of
/// 48 places where it has places; "Start" only starts. Runs in a process of its own.
void startAndFail(std::string_view name, const char* directory, int place);

}  // namespace marbleway::tests
