#pragma once

#include <string_view>

namespace marbleway::platform {

/// Writes all of `bytes` to `descriptor`, in one `write` where the system takes them at once.
/// False when a part could not be written. Async-signal-safe.
bool writeAll(int descriptor, std::string_view bytes) noexcept;

}  // namespace marbleway::platform
