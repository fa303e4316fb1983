#pragma once

#include <string_view>

#include "export.h"

namespace marbleway::platform {

/// Where the library's lines go. Called on any thread, several at once.
class MARBLEWAY_EXPORT Console {
 public:
  virtual ~Console() = default;
  /// Writes one line; `line` has no newline of its own. A line that cannot be written is lost.
  virtual void writeLine(std::string_view line) = 0;
};

}  // namespace marbleway::platform
