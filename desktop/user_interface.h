#pragma once

#include <string_view>

#include "Marbleway/platform/user_interface.h"
#include "desktop/bus_thread.h"

namespace marbleway::desktop {

/// Alerts as notifications, links in the desktop's applications, the badge as the launcher entry's
/// count. Thread: any.
class UserInterface final : public platform::UserInterface {
 public:
  explicit UserInterface(BusThread& thread) : thread_(thread) {}
  UserInterface(const UserInterface&) = delete;
  UserInterface& operator=(const UserInterface&) = delete;
  ~UserInterface() override;

  void setBadgeNumber(int number) override;
  void openURL(std::string_view url) override;
  /// The notification stays until it is dismissed.
  void showAlert(std::string_view title, std::string_view message,
                 std::string_view button) override;

 private:
  BusThread& thread_;
};

}  // namespace marbleway::desktop
