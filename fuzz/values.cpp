// Any bytes as a JSON text and as a timestamp; a dictionary of any text and number to JSON and
// back, and the timestamp of any instant.
//
// seed: {"a":[1,-2.5e3,"\u00e9\ud83d\ude00",true,false,null],"b":{}}
// seed: [[[[0.1]]],"\\\/\b\f\n\r\t"]
// seed: 2024-02-29 23:59:59.999

#include <algorithm>
#include <bit>
#include <cmath>

#include "Marbleway/platform/json.h"
#include "Marbleway/store/timestamp.h"
#include "fuzz/setting.h"

using namespace marbleway;
using fuzz::require, fuzz::textsIn;

namespace {

void readText(std::string_view text) {
  const auto value = valueFromJSON(text);
  require(!value || textsIn(text), "what the library reads is JSON");
  if (!value) return;
  const auto written = toJSON(*value);
  const auto texts = textsIn(text), writtenTexts = written ? textsIn(*written) : std::nullopt;
  const auto wasRead = [&](const std::string& each) {
    return std::ranges::find(*texts, each) != texts->end();  // a key that comes twice is left once
  };
  require(writtenTexts && std::ranges::all_of(*writtenTexts, wasRead), "what was read is written");
  const auto again = valueFromJSON(*written);  // 5.0 is "5" by now, an integer
  const auto pretty = json::toPrettyJSON(*value);
  require(again && pretty && valueFromJSON(*pretty) == *again, "line breaks change nothing");
}

void writeDictionary(const std::string& text, std::int64_t integer) {
  const auto real = std::bit_cast<double>(integer);
  const Dictionary given{{text, Array{real, integer, text}}};
  const auto written = toJSON(given);
  require(written.has_value() == std::isfinite(real), "finite numbers alone can be written");
  if (!written) return;
  const std::string valid = fuzz::withReplacements(given.begin()->first);
  require(textsIn(*written) == std::vector{valid, valid},
          "every key and text is written, in order");
  const auto read = valueFromJSON(*written);
  require(read && toJSON(*read) == written, "what is written reads back");
}

std::string timeStampAt(std::chrono::sys_time<std::chrono::nanoseconds> now) {
  fuzz::world().time->setWallClock(now);
  return getUTCTimeStamp();
}

void readTimeStamps(std::string_view bytes, std::int64_t integer) {
  using namespace std::chrono;
  const sys_time<nanoseconds> now{nanoseconds(integer / 2)};  // from 1823 to 2116
  require(timeOf(timeStampAt(now)) == floor<milliseconds>(now), "a timestamp reads back");
  const auto time = timeOf(bytes);
  if (time && abs(time->time_since_epoch()) < hours(24 * 365 * 140))
    require(timeStampAt(*time) == bytes, "a text that is a timestamp is its instant's");
}

}  // namespace

void fuzz::run(std::string_view bytes) {
  const std::int64_t integer = fuzz::integerIn(bytes);
  readText(bytes);
  writeDictionary(std::string(bytes), integer);
  readTimeStamps(bytes, integer);
}
