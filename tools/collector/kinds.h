#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <initializer_list>
#include <span>
#include <stdexcept>
#include <string_view>

namespace collector {

/// One kind of row: its member of "BatchData", which is also its table, the key whose text serves
/// as a row's name, and all its keys.
class Kind {
 public:
  consteval Kind(std::string_view name, std::string_view title,
                 std::initializer_list<std::string_view> keys)
      : name_(name), count_(keys.size()) {
    if (*keys.begin() != "id" || *(keys.end() - 1) != "UTCTimeStamp") {
      throw std::logic_error("a row begins with its id and ends with its time");
    }
    const auto* const found = std::find(keys.begin(), keys.end(), title);
    if (found == keys.end()) throw std::logic_error("a row's name is one of its texts");
    title_ = static_cast<std::size_t>(found - keys.begin());
    std::copy(keys.begin(), keys.end(), keys_.begin());
  }

  constexpr std::string_view name() const { return name_; }
  constexpr std::span<const std::string_view> keys() const { return {keys_.data(), count_}; }
  /// The position of the key whose text is a row's name.
  constexpr std::size_t title() const { return title_; }
  /// Whether a row belongs to a session, which its second key then names.
  constexpr bool hasSession() const { return keys_[1] == "SessionID"; }

 private:
  std::string_view name_;
  std::size_t count_;
  std::size_t title_ = 0;
  std::array<std::string_view, 17> keys_{};
};

// clang-format off
inline constexpr std::array<Kind, 16> kKinds{{
    {"Sessions", "BundleID",
     {"id", "SessionID", "AppleAdvertisingID", "ProjectToken", "BundleID", "PlatformDeviceID",
      "Manufacturer", "Model", "OS", "OSVersion", "AppVersion", "Carrier", "ConnectionType",
      "TimeZone", "PrivacyMode", "SDKVersion", "UTCTimeStamp"}},
    {"Users", "UserID", {"id", "SessionID", "UserID", "TypeID", "UTCTimeStamp"}},
    {"UserAttributes", "AttributeKey",
     {"id", "SessionID", "AttributeKey", "AttributeValue", "AttributeType", "UTCTimeStamp"}},
    {"Companies", "CompanyName", {"id", "SessionID", "CompanyName", "UTCTimeStamp"}},
    {"CompanyAttributes", "AttributeKey",
     {"id", "SessionID", "AttributeKey", "AttributeValue", "AttributeType", "UTCTimeStamp"}},
    {"Events", "EventName", {"id", "SessionID", "EventName", "EventAttributes", "UTCTimeStamp"}},
    {"ScreenViews", "ScreenName",
     {"id", "SessionID", "ScreenName", "ScreenAttributes", "UTCTimeStamp"}},
    {"Crashes", "CrashDetails", {"id", "SessionID", "CrashDetails", "StackTrace", "UTCTimeStamp"}},
    {"Errors", "ErrorName",
     {"id", "SessionID", "ErrorName", "ErrorMessage", "ErrorDetails", "UTCTimeStamp"}},
    {"NetworkRequests", "RequestURL",
     {"id", "SessionID", "RequestTimeStamp", "ResponseTimeStamp", "RequestURL",
      "RequestCachePolicy", "RequestHTTPMethod", "RequestHTTPHeaderFields", "RequestHTTPBody",
      "ResponseMIMEType", "ResponseExpectedContentLength", "ResponseTextEncodingName",
      "ResponseSuggestedFilename", "ResponseStatusCode", "ResponseAllHeaderFields",
      "ResponseBody", "UTCTimeStamp"}},
    {"CPUUsage", "CPUUsed", {"id", "SessionID", "CPUUsed", "CPUUnused", "UTCTimeStamp"}},
    {"MEMUsage", "MEMUsed", {"id", "SessionID", "MEMUsed", "MEMUnused", "UTCTimeStamp"}},
    {"BatteryUsage", "BatteryUsed",
     {"id", "SessionID", "BatteryUsed", "BatteryUnused", "UTCTimeStamp"}},
    {"Ads", "AdType",
     {"id", "SessionID", "AdType", "AdDetails", "InteractionType", "ConversionDetails",
      "UTCTimeStamp"}},
    // A message belongs to a user, not to a session.
    {"Messages", "MessageID",
     {"id", "MessageID", "UserID", "PlatformDeviceID", "OperatingSystem", "UTCTimeStamp"}},
    {"DeepLinks", "DeepLinkID",
     {"id", "SessionID", "DeepLinkID", "OperatingSystem", "UTCTimeStamp"}},
}};
// clang-format on

constexpr std::size_t positionOf(const Kind& kind) {
  return static_cast<std::size_t>(&kind - kKinds.data());
}

/// The kind of that name, or a null pointer.
constexpr const Kind* kindNamed(std::string_view name) {
  const auto* const found =
      std::find_if(kKinds.begin(), kKinds.end(), [&](auto& kind) { return kind.name() == name; });
  return found == kKinds.end() ? nullptr : found;
}

}  // namespace collector
