// Any bytes as a deep link, a link made of an encoded identifier among other pieces, and any JSON
// object as the payload of a push notification.
//
// clang-format off
// seed: app://open/?mrbw_dlid=a%20b+c&x=1#mrbw_dlid=no
// seed: ?mrbw_dlid=1&mrbw_dlid=%C3%BC=2&mrbw_dlid
// seed: {"aps":{"mrbw_data":true,"mrbw_messageID":"m","mrbw_userID":"u","mrbw_messageAction":"LaunchDeepLink","mrbw_messageLink":"app://open"}}
// seed: {"aps":{"mrbw_data":"yes","mrbw_messageID":"","mrbw_userID":7,"mrbw_messageAction":"LaunchWebURL","mrbw_messageLink":"no link"}}
// seed: {"aps":{"mrbw_data":0}}
// clang-format on

#include "fuzz/setting.h"

using namespace marbleway;
using fuzz::require, fuzz::world;
using Texts = std::vector<std::string>;

namespace {

Texts takeColumn(const std::string& column, const std::string& table) {
  return marbleway::testing::query(world().storePath(),
                                   "DELETE FROM " + table + " RETURNING " + column);
}

Texts identifiersOf(const std::string& link) {
  Marbleway::trackDeepLink(link);
  return world().lines().empty() ? Texts() : takeColumn("DeepLinkID", "mrbw_v2_deep_links");
}

void trackLinks(const std::string& any) {
  const bool hasKey = any.find("mrbw_dlid=") != std::string::npos;
  require(identifiersOf(any).size() <= (hasKey ? 1 : 0), "a row has an identifier's key");
  const std::string piece = any.substr(0, any.find_first_of(std::string_view("?#\0", 3)));
  std::string identifier = fuzz::withReplacements(any);
  std::string link = piece + "?" + piece + "&mrbw_dlid=" + fuzz::hexOf(identifier, "%") + "#" + any;
  identifier.resize(std::min(identifier.size(), identifier.find('\0')));
  require(identifiersOf(link) == Texts{identifier}, "the identifier is the row's");
}

void trackPush(const Dictionary& payload) {
  const auto screen = std::make_shared<platform::testing::RecordingInterface>();
  platform::install({.userInterface = screen});
  Marbleway::trackPushNotification(payload);
  const bool isTracked = !world().lines().empty();
  require(screen->badgeNumbers() == std::vector<int>(isTracked ? 1 : 0), "the badge is cleared");
  require(isTracked || screen->openedURLs().empty(), "others open nothing");
  if (isTracked) require(takeColumn("id", "mrbw_v2_messages").size() <= 1, "a message has one row");
  for (const std::string& opened : screen->openedURLs()) {
    require(opened.find(':') < opened.size() - 1, "the link is absolute");
    require(opened.find_first_of(" \"<>\\\n\r\t\x7F") == std::string::npos, "the link is plain");
  }
}

}  // namespace

void fuzz::run(std::string_view bytes) {
  trackLinks(std::string(bytes));
  const auto payload = valueFromJSON(bytes);
  if (payload && payload->as<Dictionary>() != nullptr) trackPush(*payload->as<Dictionary>());
}
