#include "Marbleway/store/timestamp.h"

#include <charconv>

#include "Marbleway/platform/platform.h"

namespace marbleway {
namespace {

using std::chrono::milliseconds;

// A field of the text: where it begins, how many digits it has.
struct Field {
  std::size_t at, digits;
};
constexpr Field kYear{0, 4}, kMonth{5, 2}, kDay{8, 2}, kHour{11, 2}, kMinute{14, 2}, kSecond{17, 2},
    kMillisecond{20, 3};
constexpr std::string_view kPattern = "0000-00-00 00:00:00.000";

void put(std::string& text, Field field, unsigned value) {
  for (std::size_t i = field.digits; i-- > 0; value /= 10) {
    text[field.at + i] = static_cast<char>('0' + value % 10);
  }
}

std::optional<unsigned> take(std::string_view text, Field field) {
  unsigned value = 0;
  const char* end = text.data() + field.at + field.digits;
  const auto [read, error] = std::from_chars(text.data() + field.at, end, value);
  return error == std::errc() && read == end ? std::optional(value) : std::nullopt;
}

}  // namespace

std::string getUTCTimeStamp() { return timeStampOf(platform::current()->clock->now()); }

std::string timeStampOf(std::chrono::system_clock::time_point instant) {
  const auto now = std::chrono::floor<milliseconds>(instant);
  const auto midnight = std::chrono::floor<std::chrono::days>(now);
  const std::chrono::year_month_day date(midnight);
  const std::chrono::hh_mm_ss time(now - midnight);

  std::string text(kPattern);
  put(text, kYear, static_cast<unsigned>(static_cast<int>(date.year())));
  put(text, kMonth, static_cast<unsigned>(date.month()));
  put(text, kDay, static_cast<unsigned>(date.day()));
  put(text, kHour, static_cast<unsigned>(time.hours().count()));
  put(text, kMinute, static_cast<unsigned>(time.minutes().count()));
  put(text, kSecond, static_cast<unsigned>(time.seconds().count()));
  put(text, kMillisecond, static_cast<unsigned>(time.subseconds().count()));
  return text;
}

std::optional<std::chrono::sys_time<milliseconds>> timeOf(std::string_view timeStamp) {
  if (timeStamp.size() != kPattern.size()) return std::nullopt;
  for (std::size_t i = 0; i < kPattern.size(); ++i) {
    if (kPattern[i] != '0' && timeStamp[i] != kPattern[i]) return std::nullopt;
  }
  const auto year = take(timeStamp, kYear), month = take(timeStamp, kMonth),
             day = take(timeStamp, kDay), hour = take(timeStamp, kHour),
             minute = take(timeStamp, kMinute), second = take(timeStamp, kSecond),
             millisecond = take(timeStamp, kMillisecond);
  if (!year || !month || !day || !hour || !minute || !second || !millisecond) return std::nullopt;
  const std::chrono::year_month_day date(std::chrono::year(static_cast<int>(*year)),
                                         std::chrono::month(*month), std::chrono::day(*day));
  if (!date.ok() || *hour > 23 || *minute > 59 || *second > 59) return std::nullopt;
  return std::chrono::sys_days(date) + std::chrono::hours(*hour) + std::chrono::minutes(*minute) +
         std::chrono::seconds(*second) + milliseconds(*millisecond);
}

}  // namespace marbleway
