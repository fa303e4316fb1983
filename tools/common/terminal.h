#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

namespace tools {

/// The characters of a line of the terminal that standard output is; absent for a file or a pipe.
/// The terminal's own size comes first, then COLUMNS, then 80.
std::optional<std::size_t> terminalWidth();

/// The width that the terminal gives itself, 0 if it gives none; absent for a file or a pipe. By
/// each system.
std::optional<int> terminalColumns();

/// From here on the first interrupt (Ctrl-C) does not end the program; a second one does.
void catchInterrupt();

/// Waits for `time`; returns true, within 50 ms, once an interrupt has been caught.
bool isInterruptedWithin(std::chrono::milliseconds time);

}  // namespace tools
