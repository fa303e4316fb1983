#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "export.h"

namespace marbleway::platform {

/// Texts and flags kept between launches. Thread: any.
class MARBLEWAY_EXPORT UserDefaults {
 public:
  virtual ~UserDefaults() = default;
  /// Absent when there is no text under `key`.
  virtual std::optional<std::string> text(std::string_view key) = 0;
  /// Keeps a text in the place of what was there.
  virtual void setText(std::string_view key, std::string_view text) = 0;
  /// Keeps a flag in the place of what was there.
  virtual void setFlag(std::string_view key, bool flag) = 0;
  /// Forgets what was there.
  virtual void remove(std::string_view key) = 0;
  /// Writes out what has changed, if anything has; a failure is silent and leaves it to be written
  /// by the next call.
  virtual void synchronize() = 0;
};

}  // namespace marbleway::platform
