#pragma once

#include <string_view>

#include "Marbleway/platform/buffer.h"

namespace marbleway {

/// Appends `text` as the inside of a JSON string: quotes, backslashes and controls escaped, each
/// byte that belongs to no valid UTF-8 sequence replaced by U+FFFD. Throws std::bad_alloc.
void appendEscaped(platform::Buffer& buffer, std::string_view text);

}  // namespace marbleway
