#pragma once

#include <array>
#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>

namespace marbleway {

/// The two stores, each one SQLite file in the documents directory.
enum class Store { event, network };

inline constexpr const char* DBFileName = "mrbw-analytics-prod-220.sqlite";
inline constexpr const char* HTTPDBFileName = "mrbw-http-prod-220.sqlite";

/// The texts between backticks of an SQL statement, or the words of a list, up to sixteen.
struct Names {
  static constexpr std::size_t kMax = 16;

  std::array<std::string_view, kMax> names{};
  std::size_t count = 0;

  constexpr void add(std::string_view name) { names.at(count++) = name; }
  constexpr std::string_view operator[](std::size_t index) const { return names.at(index); }
  constexpr std::size_t size() const { return count; }
  constexpr const std::string_view* begin() const { return names.data(); }
  constexpr const std::string_view* end() const { return names.data() + count; }
  friend constexpr bool operator==(const Names&, const Names&) = default;
};

/// A column that the batch document calls by another name.
struct KeyOverride {
  std::string_view column;
  std::string_view key;
};

/// One table. Creation, purge, reading, document and deletion are loops over these.
struct Table {
  Store store;                // the file it lives in
  std::string_view arrayKey;  // its member of "BatchData"
  const char* create;         // run once, on a file that did not exist
  std::string_view name;      // read from `create`
  Names columns;              // read from `create`: every quoted name after `id`
  Names keys;                 // the columns' names in the batch document

  consteval Table(Store in, std::string_view key, const char* sql, KeyOverride override = {})
      : store(in), arrayKey(key), create(sql) {
    std::string_view rest(sql);
    name = nextQuoted(rest);
    if (nextQuoted(rest) != "id") throw "the first column of a table is its id";
    for (std::string_view column = nextQuoted(rest); !column.empty(); column = nextQuoted(rest)) {
      columns.add(column);
      keys.add(column == override.column ? override.key : column);
    }
  }

 private:
  static constexpr std::string_view nextQuoted(std::string_view& rest) {
    const std::size_t begin = rest.find('`');
    if (begin == std::string_view::npos) return {};
    const std::size_t end = rest.find('`', begin + 1);
    const std::string_view quoted = rest.substr(begin + 1, end - begin - 1);
    rest.remove_prefix(end + 1);
    return quoted;
  }
};

// clang-format off
/// The sixteen tables, in the order of purge, reading and acknowledgement. The event store's come
/// in the order of their creation.
inline constexpr Table kTables[] = {
    {Store::network, "NetworkRequests",
     "CREATE TABLE `mrbw_v2_network_requests` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `RequestTimeStamp` TEXT, `ResponseTimeStamp` TEXT, `RequestURL` TEXT, `RequestCachePolicy` TEXT, `RequestHTTPMethod` TEXT, `RequestHTTPHeaderFields` TEXT, `RequestHTTPBody` TEXT,  `ResponseMIMEType` TEXT,  `ResponseExpectedContentLength` TEXT,  `ResponseTextEncodingName` TEXT, `ResponseSuggestedFilename` TEXT,    `ResponseStatusCode` TEXT,  `ResponseAllHeaderFields` TEXT, `ResponseBody` TEXT, `UTCTimeStamp` TEXT )"},
    {Store::event, "Sessions",
     "CREATE TABLE `mrbw_v2_sessions` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `AdvertisingID` TEXT, `ProjectToken` TEXT, `BundleID` TEXT, `PlatformDeviceID` TEXT, `Manufacturer` TEXT, `Model` TEXT, `OS` TEXT, `OSVersion` TEXT, `AppVersion` TEXT, `Carrier` TEXT, `ConnectionType` TEXT, `TimeZone` TEXT, `PrivacyMode` TEXT, `SDKVersion` TEXT, `UTCTimeStamp` TEXT )",
     {.column = "AdvertisingID", .key = "AppleAdvertisingID"}},
    {Store::event, "Users",
     "CREATE TABLE `mrbw_v2_users` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `UserID` TEXT, `TypeID` TEXT, `UTCTimeStamp` TEXT )"},
    {Store::event, "UserAttributes",
     "CREATE TABLE `mrbw_v2_user_attributes` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `AttributeKey` TEXT, `AttributeValue` TEXT,  `AttributeType` TEXT, `UTCTimeStamp` TEXT )"},
    {Store::event, "Companies",
     "CREATE TABLE `mrbw_v2_companies` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `CompanyName` TEXT, `UTCTimeStamp` TEXT )"},
    {Store::event, "CompanyAttributes",
     "CREATE TABLE `mrbw_v2_company_attributes` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `AttributeKey` TEXT, `AttributeValue` TEXT, `AttributeType` TEXT, `UTCTimeStamp` TEXT )"},
    {Store::event, "Events",
     "CREATE TABLE `mrbw_v2_events` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `EventName` TEXT, `EventAttributes` TEXT NULL, `UTCTimeStamp` TEXT )"},
    {Store::event, "ScreenViews",
     "CREATE TABLE `mrbw_v2_screen_views` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `ScreenName` TEXT, `ScreenAttributes` TEXT NULL, `UTCTimeStamp` TEXT )"},
    {Store::event, "Crashes",
     "CREATE TABLE `mrbw_v2_crashes` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `CrashDetails` TEXT,  `StackTrace` TEXT, `UTCTimeStamp` TEXT )"},
    {Store::event, "Errors",
     "CREATE TABLE `mrbw_v2_errors` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `ErrorName` TEXT, `ErrorMessage` TEXT, `ErrorDetails` TEXT,  `UTCTimeStamp` TEXT )"},
    {Store::event, "CPUUsage",
     "CREATE TABLE `mrbw_v2_cpu_usage` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `CPUUsed` TEXT, `CPUUnused` TEXT, `UTCTimeStamp` TEXT )"},
    {Store::event, "MEMUsage",
     "CREATE TABLE `mrbw_v2_memory_usage` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `MEMUsed` TEXT, `MEMUnused` TEXT, `UTCTimeStamp` TEXT )"},
    {Store::event, "BatteryUsage",
     "CREATE TABLE `mrbw_v2_battery_usage` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT,  `BatteryUsed` TEXT,  `BatteryUnused` TEXT, `UTCTimeStamp` TEXT )"},
    {Store::event, "Ads",
     "CREATE TABLE `mrbw_v2_ads` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `AdType` TEXT, `AdDetails` TEXT, `InteractionType` TEXT NULL, `ConversionDetails` TEXT NULL, `UTCTimeStamp` TEXT )"},
    {Store::event, "Messages",
     "CREATE TABLE `mrbw_v2_messages` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `MessageID` TEXT, `UserID` TEXT, `PlatformDeviceID` TEXT NULL, `OperatingSystem` TEXT NULL, `UTCTimeStamp` TEXT )"},
    {Store::event, "DeepLinks",
     "CREATE TABLE `mrbw_v2_deep_links` ( `id` INTEGER PRIMARY KEY AUTOINCREMENT, `SessionID` TEXT, `DeepLinkID` TEXT, `OperatingSystem` TEXT NULL, `UTCTimeStamp` TEXT )"},
};
// clang-format on

/// When each table was read for a batch, in the order of `kTables`: texts of `getUTCTimeStamp`.
using CutOffs = std::array<std::string, std::size(kTables)>;

}  // namespace marbleway
