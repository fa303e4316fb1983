#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "export.h"

namespace marbleway::platform {

/// The application's user interface. Called on the thread of the operation or callback that needs
/// it. Failures are ignored.
class MARBLEWAY_EXPORT UserInterface {
 public:
  virtual ~UserInterface() = default;
  /// Shows `number` on the application's icon; 0 clears it.
  virtual void setBadgeNumber(int number) = 0;
  /// Opens an absolute URL, in the application or in another one.
  virtual void openURL(std::string_view url) = 0;
  /// Shows a modal alert with one button.
  virtual void showAlert(std::string_view title, std::string_view message,
                         std::string_view button) = 0;
};

}  // namespace marbleway::platform
