#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "export.h"

namespace marbleway::platform {

/// Texts and flags that last after the process has ended. Thread: any.
class MARBLEWAY_EXPORT UserDefaults {
 public:
  virtual ~UserDefaults() = default;
  /// Absent when there is no text under `key`.
  virtual std::optional<std::string> text(std::string_view key) = 0;
  /// Stores a text in the place of what was there.
  virtual void setText(std::string_view key, std::string_view text) = 0;
  /// Stores a flag in the place of what was there.
  virtual void setFlag(std::string_view key, bool flag) = 0;
  /// Removes what was there.
  virtual void remove(std::string_view key) = 0;
  /// Writes the changes, if there are any. A failure is silent; the next call writes them again.
  virtual void synchronize() = 0;
  /// Stores a text unless there is one. If processes share the settings and another one has stored
  /// a text first, `synchronize` replaces this text by that one; the default implementation does
  /// not.
  virtual void setTextIfMissing(std::string_view key, std::string_view value) {
    if (!text(key)) setText(key, value);
  }
};

}  // namespace marbleway::platform
