#pragma once

#include <algorithm>
#include <string_view>

#include "Marbleway/store/schema.h"

namespace inspect {

/// A column that can hold personal data. A column that is missing here describes the application.
struct Personal {
  /// identifier: names a person or a device permanently. link: connects rows or persons.
  /// attribute: a property of a person or company, by name. device: a property of the device.
  /// content: whatever the application recorded; only its author knows what it contains.
  std::string_view kind;
  const marbleway::Table& table;
  std::string_view column;
  std::string_view keyColumn = {};  // the column that names what the value is, if one does

  consteval Personal(std::string_view kindOf, std::string_view tableName,
                     std::string_view columnName, std::string_view keyName = {})
      : kind(kindOf), table(tableOf(tableName)), column(columnName), keyColumn(keyName) {
    const auto isColumn = [this](std::string_view name) {
      return std::ranges::find(table.columns, name) != table.columns.end();
    };
    if (!isColumn(column) || !(keyColumn.empty() || isColumn(keyColumn))) throw "no such column";
  }

 private:
  static consteval const marbleway::Table& tableOf(std::string_view name) {
    for (const marbleway::Table& table : marbleway::kTables) {
      if (table.name == name) return table;
    }
    throw "no such table";
  }
};

inline constexpr Personal kPersonal[] = {
    {"identifier", "mrbw_v2_users", "UserID"},
    {"identifier", "mrbw_v2_messages", "UserID"},
    {"identifier", "mrbw_v2_sessions", "PlatformDeviceID"},
    {"identifier", "mrbw_v2_messages", "PlatformDeviceID"},
    {"identifier", "mrbw_v2_sessions", "AdvertisingID"},
    {"attribute", "mrbw_v2_user_attributes", "AttributeValue", "AttributeKey"},
    {"attribute", "mrbw_v2_company_attributes", "AttributeValue", "AttributeKey"},
    {"link", "mrbw_v2_users", "SessionID"},
    {"link", "mrbw_v2_companies", "CompanyName"},
    {"link", "mrbw_v2_deep_links", "DeepLinkID"},
    {"link", "mrbw_v2_messages", "MessageID"},
    {"device", "mrbw_v2_sessions", "Model"},
    {"device", "mrbw_v2_sessions", "OSVersion"},
    {"device", "mrbw_v2_sessions", "Carrier"},
    {"device", "mrbw_v2_sessions", "ConnectionType"},
    {"device", "mrbw_v2_sessions", "TimeZone"},
    {"content", "mrbw_v2_events", "EventAttributes", "EventName"},
    {"content", "mrbw_v2_screen_views", "ScreenAttributes", "ScreenName"},
    {"content", "mrbw_v2_ads", "AdDetails", "AdType"},
    {"content", "mrbw_v2_ads", "ConversionDetails", "AdType"},
    {"content", "mrbw_v2_errors", "ErrorMessage", "ErrorName"},
    {"content", "mrbw_v2_errors", "ErrorDetails", "ErrorName"},
    {"content", "mrbw_v2_crashes", "CrashDetails"},
    {"content", "mrbw_v2_network_requests", "RequestURL"},
    {"content", "mrbw_v2_network_requests", "RequestHTTPHeaderFields"},
    {"content", "mrbw_v2_network_requests", "RequestHTTPBody"},
    {"content", "mrbw_v2_network_requests", "ResponseAllHeaderFields"},
    {"content", "mrbw_v2_network_requests", "ResponseBody"},
};

/// The settings that name a person or a device, or connect rows with it.
inline constexpr struct {
  std::string_view kind, key;
} kPersonalSettings[] = {{"identifier", "Marbleway_UserID"},
                         {"identifier", "Marbleway_GenericDeviceID"},
                         {"identifier", "Marbleway_VendorID"},
                         {"link", "Marbleway_SharedSessionID"}};

}  // namespace inspect
