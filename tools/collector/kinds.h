#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <initializer_list>
#include <span>
#include <stdexcept>
#include <string_view>

namespace collector {

/// One kind of row: its member of "BatchData", which is also its table, and the keys of its rows.
class Kind {
 public:
  consteval Kind(std::string_view name, std::initializer_list<std::string_view> keys)
      : name_(name), count_(keys.size()) {
    if (*keys.begin() != "id" || *(keys.end() - 1) != "UTCTimeStamp") {
      throw std::logic_error("a row begins with its id and ends with its time");
    }
    std::copy(keys.begin(), keys.end(), keys_.begin());
  }

  constexpr std::string_view name() const { return name_; }
  constexpr std::span<const std::string_view> keys() const { return {keys_.data(), count_}; }

 private:
  std::string_view name_;
  std::size_t count_;
  std::array<std::string_view, 17> keys_{};
};

// clang-format off
inline constexpr std::array<Kind, 16> kKinds{{
    {"Sessions", {"id", "SessionID", "AppleAdvertisingID", "ProjectToken", "BundleID",
                  "PlatformDeviceID", "Manufacturer", "Model", "OS", "OSVersion", "AppVersion",
                  "Carrier", "ConnectionType", "TimeZone", "PrivacyMode", "SDKVersion",
                  "UTCTimeStamp"}},
    {"Users", {"id", "SessionID", "UserID", "TypeID", "UTCTimeStamp"}},
    {"UserAttributes", {"id", "SessionID", "AttributeKey", "AttributeValue", "AttributeType",
                        "UTCTimeStamp"}},
    {"Companies", {"id", "SessionID", "CompanyName", "UTCTimeStamp"}},
    {"CompanyAttributes", {"id", "SessionID", "AttributeKey", "AttributeValue", "AttributeType",
                           "UTCTimeStamp"}},
    {"Events", {"id", "SessionID", "EventName", "EventAttributes", "UTCTimeStamp"}},
    {"ScreenViews", {"id", "SessionID", "ScreenName", "ScreenAttributes", "UTCTimeStamp"}},
    {"Crashes", {"id", "SessionID", "CrashDetails", "StackTrace", "UTCTimeStamp"}},
    {"Errors", {"id", "SessionID", "ErrorName", "ErrorMessage", "ErrorDetails", "UTCTimeStamp"}},
    {"NetworkRequests", {"id", "SessionID", "RequestTimeStamp", "ResponseTimeStamp", "RequestURL",
                         "RequestCachePolicy", "RequestHTTPMethod", "RequestHTTPHeaderFields",
                         "RequestHTTPBody", "ResponseMIMEType", "ResponseExpectedContentLength",
                         "ResponseTextEncodingName", "ResponseSuggestedFilename",
                         "ResponseStatusCode", "ResponseAllHeaderFields", "ResponseBody",
                         "UTCTimeStamp"}},
    {"CPUUsage", {"id", "SessionID", "CPUUsed", "CPUUnused", "UTCTimeStamp"}},
    {"MEMUsage", {"id", "SessionID", "MEMUsed", "MEMUnused", "UTCTimeStamp"}},
    {"BatteryUsage", {"id", "SessionID", "BatteryUsed", "BatteryUnused", "UTCTimeStamp"}},
    {"Ads", {"id", "SessionID", "AdType", "AdDetails", "InteractionType", "ConversionDetails",
             "UTCTimeStamp"}},
    // A message belongs to a user, not to a session.
    {"Messages", {"id", "MessageID", "UserID", "PlatformDeviceID", "OperatingSystem",
                  "UTCTimeStamp"}},
    {"DeepLinks", {"id", "SessionID", "DeepLinkID", "OperatingSystem", "UTCTimeStamp"}},
}};
// clang-format on

}  // namespace collector
