// Any JSON object as the payload of a push notification.
//
// seed:
// {"aps":{"mrbw_data":true,"mrbw_messageID":"m","mrbw_userID":"u","mrbw_messageAction":"LaunchDeepLink","mrbw_messageLink":"app://open"}}
// seed:
// {"aps":{"mrbw_data":"yes","mrbw_messageID":"","mrbw_userID":7,"mrbw_messageAction":"LaunchWebURL","mrbw_messageLink":"no
// link"}} seed: {"aps":{"mrbw_data":0}}

#include "Marbleway/core/state.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/testing/recording_interface.h"
#include "Marbleway/tracking/operations.h"
#include "fuzz/setting.h"
#include "fuzz/strict_json.h"

namespace {

using namespace marbleway;
using fuzz::require;
using platform::testing::RecordingInterface;

std::string textIn(const Dictionary& dictionary, std::string_view key) {
  const Value* value = dictionary.find(key);
  const auto* text = value != nullptr ? value->as<std::string>() : nullptr;
  return text != nullptr ? *text : std::string();
}

void checkTracked(const Dictionary& aps, const RecordingInterface& screen) {
  const std::string id = textIn(aps, "mrbw_messageID"), user = textIn(aps, "mrbw_userID");
  std::vector<std::vector<std::string>> rows;
  if (!id.empty()) rows.push_back({fuzz::withReplacements(id), fuzz::withReplacements(user)});
  require(fuzz::takeRows("mrbw_v2_messages", {"MessageID", "UserID"}) == rows, "its row is there");

  require(screen.badgeNumbers() == std::vector<int>{0}, "the badge is cleared, once");
  const std::string action = textIn(aps, "mrbw_messageAction");
  const bool mayOpen = action == "LaunchDeepLink" || action == "LaunchWebURL";
  for (const std::string& opened : screen.openedURLs()) {
    require(mayOpen && opened == textIn(aps, "mrbw_messageLink"), "the link is the payload's");
    require(opened.find(':') < opened.size() - 1, "the link is absolute");
    require(opened.find_first_of(" \"<>\\\n\r\t\x7F") == std::string::npos, "the link is plain");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& setting = fuzz::settingWithStores();
  const auto payload = valueFromJSON(fuzz::textOf(data, size));
  const auto* members = payload ? payload->as<Dictionary>() : nullptr;
  if (members == nullptr) return 0;

  const auto screen = std::make_shared<RecordingInterface>();
  platform::install({.userInterface = screen});
  isLoggingEnabled = true;
  trackPushNotification(*members);

  const bool isTracked = !setting.console->take().empty();
  const Value* entry = members->find("aps");
  const auto* aps = entry != nullptr ? entry->as<Dictionary>() : nullptr;
  require(!isTracked || (aps != nullptr && aps->find("mrbw_data") != nullptr), "it is marked");
  if (isTracked) return checkTracked(*aps, *screen), 0;
  require(screen->badgeNumbers().empty() && screen->openedURLs().empty(), "others do nothing");
  return 0;
}
