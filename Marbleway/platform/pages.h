#pragma once

#include <cstddef>

#include "export.h"

namespace marbleway::platform {

/// Asks for the memory behind the whole pages of a block's `size` bytes from `start` on, which are
/// about to be written: one call costs less than one interruption a page. Only a hint.
MARBLEWAY_EXPORT void prefault(char* start, std::size_t size) noexcept;

}  // namespace marbleway::platform
