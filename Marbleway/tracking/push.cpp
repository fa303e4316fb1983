#include <string>

#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/conversions.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/validation.h"

using namespace marbleway;

namespace {

// The text under `key`; absent when there is none.
Text textIn(const Dictionary& dictionary, std::string_view key) {
  const Value* value = dictionary.find(key);
  const auto* text = value != nullptr ? value->as<std::string>() : nullptr;
  return text != nullptr ? Text(*text) : Text(nullptr);
}

}  // namespace

void Marbleway::setDeviceToken(std::optional<std::span<const std::uint8_t>> deviceToken) noexcept {
  operation([&] {
    if (!deviceToken) return;
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text = "<";
    for (const std::uint8_t byte : *deviceToken) {
      text += kDigits[byte >> 4U];
      text += kDigits[byte & 0xFU];
    }
    text += '>';
    setUserAttribute("ApplePushToken", text);
  });
}

void Marbleway::trackPushNotification(const Dictionary& userInfo) noexcept {
  operation([&] {
    const Value* entry = userInfo.find("aps");
    const auto* aps = entry != nullptr ? entry->as<Dictionary>() : nullptr;
    if (aps == nullptr || !toBool(aps->find("mrbw_data"))) return;

    const Text messageID = textIn(*aps, "mrbw_messageID");
    const Text action = textIn(*aps, "mrbw_messageAction");
    const Text link = textIn(*aps, "mrbw_messageLink");
    const auto services = platform::current();
    const std::string timeStamp = getUTCTimeStamp();
    if (!messageID.isMissing()) {
      catchAll([&] {
        insertRow(
            "insert into mrbw_v2_messages (id, MessageID, UserID, PlatformDeviceID, OperatingSystem, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?)",
            {messageID, textIn(*aps, "mrbw_userID"), services->device->vendorIdentifier(), "iOS",
             timeStamp});
      });
    }
    console::message("Push Notification Tracked");  // also without a row
    catchAll([&] { services->userInterface->setBadgeNumber(0); });
    const bool opensLink = action.view() == "LaunchDeepLink" || action.view() == "LaunchWebURL";
    if (opensLink && isAbsoluteURL(link)) services->userInterface->openURL(link.view());
  });
}
