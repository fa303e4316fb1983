#include "tools/common/json_text.h"

#include <array>
#include <chrono>
#include <cstdio>

namespace tools {

void put(JsonWriter& writer, std::string_view text) {
  writer.String(text.empty() ? "" : text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

long long millisecondsNow() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

std::string isoTime(long long milliseconds) {
  using std::chrono::days, std::chrono::floor, std::chrono::hh_mm_ss;
  const std::chrono::sys_time<std::chrono::milliseconds> time{
      std::chrono::milliseconds(milliseconds)};
  const auto day = floor<days>(time);
  const std::chrono::year_month_day date(day);
  const hh_mm_ss clock(time - day);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()),
                static_cast<int>(clock.subseconds().count()));
  return text.data();
}

}  // namespace tools
