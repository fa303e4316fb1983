#include "desktop/user_interface.h"

#include <cstdint>
#include <functional>
#include <string>

#include "desktop/bus_services.h"
#include "desktop/links.h"

namespace marbleway::desktop {
namespace {

/// A notification's body may have markup; a title has none.
std::string escapedMarkup(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

}  // namespace

void UserInterface::showAlert(std::string_view title, std::string_view message,
                              std::string_view button) {
  if (thread_.setting().sessionAddress.empty()) return;
  thread_.post([title = std::string(title), body = escapedMarkup(message),
                button = std::string(button),
                entry = thread_.setting().desktopEntry](BusServices& services) {
    // A desktop may withdraw the notifications of a connection that ends.
    const auto onReply = [&services](sd_bus_message* reply) {
      if (isAnswer(reply)) {
        services.session.stayConnected();
      }
    };
    constexpr std::int32_t kNeverExpires = 0;
    services.session.call({"org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                           "org.freedesktop.Notifications", "Notify"},
                          onReply, "susssasa{sv}i", entry.c_str(), 0U, "", title.c_str(),
                          body.c_str(), 2, "ok", button.c_str(), 1, "desktop-entry", "s",
                          entry.c_str(), kNeverExpires);
  });
}

void UserInterface::setBadgeNumber(int number) {
  if (thread_.setting().sessionAddress.empty()) return;
  thread_.post([number, entry = thread_.setting().desktopEntry](BusServices& services) {
    const std::string application = "application://" + entry + ".desktop";
    const auto path = "/com/canonical/unity/launcherentry/" +
                      std::to_string(std::hash<std::string>()(application));
    services.session.emit(path.c_str(), "com.canonical.Unity.LauncherEntry", "Update", "sa{sv}",
                          application.c_str(), 2, "count", "x", std::int64_t{number},
                          "count-visible", "b", static_cast<int>(number > 0));
  });
}

void UserInterface::openURL(std::string_view url) {
  if (!isOpenable(url)) return;
  thread_.post(
      [url = std::string(url)](BusServices& services) { openLink(services.session, url); });
}

}  // namespace marbleway::desktop
