#include "Marbleway/platform/windows/time_zone.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>

#include "Marbleway/platform/windows/text.h"

namespace marbleway::platform {
namespace {

struct Zone {
  std::wstring_view system;
  std::string_view name;
};
// clang-format off
constexpr Zone kZones[] = {
    {L"UTC", "UTC"},
    {L"GMT Standard Time", "Europe/London"},
    {L"Greenwich Standard Time", "Atlantic/Reykjavik"},
    {L"W. Europe Standard Time", "Europe/Berlin"},
    {L"Central Europe Standard Time", "Europe/Budapest"},
    {L"Central European Standard Time", "Europe/Warsaw"},
    {L"Romance Standard Time", "Europe/Paris"},
    {L"GTB Standard Time", "Europe/Bucharest"},
    {L"FLE Standard Time", "Europe/Kiev"},
    {L"Turkey Standard Time", "Europe/Istanbul"},
    {L"Russian Standard Time", "Europe/Moscow"},
    {L"Belarus Standard Time", "Europe/Minsk"},
    {L"Morocco Standard Time", "Africa/Casablanca"},
    {L"Egypt Standard Time", "Africa/Cairo"},
    {L"W. Central Africa Standard Time", "Africa/Lagos"},
    {L"South Africa Standard Time", "Africa/Johannesburg"},
    {L"E. Africa Standard Time", "Africa/Nairobi"},
    {L"Israel Standard Time", "Asia/Jerusalem"},
    {L"Arab Standard Time", "Asia/Riyadh"},
    {L"Arabian Standard Time", "Asia/Dubai"},
    {L"Iran Standard Time", "Asia/Tehran"},
    {L"Pakistan Standard Time", "Asia/Karachi"},
    {L"India Standard Time", "Asia/Calcutta"},
    {L"Bangladesh Standard Time", "Asia/Dhaka"},
    {L"SE Asia Standard Time", "Asia/Bangkok"},
    {L"China Standard Time", "Asia/Shanghai"},
    {L"Singapore Standard Time", "Asia/Singapore"},
    {L"Taipei Standard Time", "Asia/Taipei"},
    {L"W. Australia Standard Time", "Australia/Perth"},
    {L"Tokyo Standard Time", "Asia/Tokyo"},
    {L"Korea Standard Time", "Asia/Seoul"},
    {L"AUS Central Standard Time", "Australia/Darwin"},
    {L"Cen. Australia Standard Time", "Australia/Adelaide"},
    {L"E. Australia Standard Time", "Australia/Brisbane"},
    {L"AUS Eastern Standard Time", "Australia/Sydney"},
    {L"New Zealand Standard Time", "Pacific/Auckland"},
    {L"Azores Standard Time", "Atlantic/Azores"},
    {L"E. South America Standard Time", "America/Sao_Paulo"},
    {L"Argentina Standard Time", "America/Buenos_Aires"},
    {L"Newfoundland Standard Time", "America/St_Johns"},
    {L"Atlantic Standard Time", "America/Halifax"},
    {L"Pacific SA Standard Time", "America/Santiago"},
    {L"Eastern Standard Time", "America/New_York"},
    {L"SA Pacific Standard Time", "America/Bogota"},
    {L"Central Standard Time", "America/Chicago"},
    {L"Central Standard Time (Mexico)", "America/Mexico_City"},
    {L"Mountain Standard Time", "America/Denver"},
    {L"US Mountain Standard Time", "America/Phoenix"},
    {L"Pacific Standard Time", "America/Los_Angeles"},
    {L"Alaskan Standard Time", "America/Anchorage"},
    {L"Hawaiian Standard Time", "Pacific/Honolulu"},
};
// clang-format on

/// The name from the system's ICU, which Windows 10 has since 2019; empty without it.
std::string nameFromICU(std::wstring_view zone) {
  using Find = std::int32_t(const wchar_t* zone, std::int32_t size, const char* region,
                            wchar_t* name, std::int32_t capacity, std::int32_t* error);
  static const HMODULE library = LoadLibraryExW(L"icu.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (library == nullptr) return {};
  auto* find = reinterpret_cast<Find*>(
      reinterpret_cast<void*>(GetProcAddress(library, "ucal_getTimeZoneIDForWindowsID")));
  std::array<wchar_t, 8> region{};  // of zones in several countries, the user's own
  (void)GetLocaleInfoEx(LOCALE_NAME_USER_DEFAULT, LOCALE_SISO3166CTRYNAME, region.data(),
                        static_cast<int>(region.size()));
  std::array<wchar_t, 128> name{};
  std::int32_t error = 0;
  std::int32_t size = 0;
  if (find != nullptr) {
    size = find(zone.data(), static_cast<std::int32_t>(zone.size()), narrow(region.data()).c_str(),
                name.data(), static_cast<std::int32_t>(name.size()), &error);
  }
  const bool isFound = error <= 0 && size > 0 && size < std::ssize(name);
  return isFound ? narrow({name.data(), static_cast<std::size_t>(size)}) : std::string();
}

}  // namespace

std::string_view knownTimeZone(std::wstring_view zone) {
  const auto* const found = std::ranges::find(kZones, zone, &Zone::system);
  return found != std::end(kZones) ? found->name : std::string_view();
}

std::string timeZoneName() {
  DYNAMIC_TIME_ZONE_INFORMATION facts{};
  if (GetDynamicTimeZoneInformation(&facts) == TIME_ZONE_ID_INVALID) return "UTC";
  const std::wstring_view zone = facts.TimeZoneKeyName;
  if (std::string name = nameFromICU(zone); !name.empty()) return name;
  const std::string_view known = knownTimeZone(zone);
  return known.empty() ? "UTC" : std::string(known);
}

}  // namespace marbleway::platform
