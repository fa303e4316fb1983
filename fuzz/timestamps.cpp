// Any bytes as a timestamp, and the timestamp of any instant, against the C library's calendar.
//
// seed: 2026-01-02 03:04:05.678
// seed: 2024-02-29 23:59:59.999

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "Marbleway/store/timestamp.h"
#include "fuzz/setting.h"

namespace {

using namespace std::chrono;

std::string formatted(sys_time<milliseconds> time) {
  const auto wholeSeconds = floor<seconds>(time);
  const std::time_t count = wholeSeconds.time_since_epoch().count();
  std::tm parts{};
  gmtime_r(&count, &parts);
  char text[64];  // NOLINT(modernize-avoid-c-arrays)
  (void)std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", parts.tm_year + 1900,
                      parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                      static_cast<int>((time - wholeSeconds).count()));
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace marbleway;
  const std::string_view text = fuzz::textOf(data, size);
  if (const auto time = timeOf(text)) {
    fuzz::require(formatted(*time) == text, "what is read is the instant that it names");
  }

  std::int64_t nanos = 0;
  std::memcpy(&nanos, data, std::min(size, sizeof nanos));
  // From 1823 to 2116; the whole range would overflow the test's own clock.
  const system_clock::time_point now{nanoseconds(nanos / 2)};
  fuzz::setting().time->setWallClock(now);
  const std::string stamp = getUTCTimeStamp();
  fuzz::require(stamp == formatted(floor<milliseconds>(now)), "the stamp is the clock's instant");
  fuzz::require(timeOf(stamp) == floor<milliseconds>(now), "the stamp reads back the same");
  return 0;
}
