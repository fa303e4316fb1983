// Any bytes as a JSON text, and a dictionary of any text and number to JSON and
// back.
//
// seed: {"a":[1,-2.5e3,"\u00e9\ud83d\ude00",true,false,null],"b":{}}
// seed: [[[[0.1]]],"\\\/\b\f\n\r\t"]

#include <bit>
#include <cmath>

#include "Marbleway/platform/json.h"
#include "fuzz/setting.h"

using namespace marbleway;
using fuzz::contentOf, fuzz::require;

namespace {

void readText(std::string_view text) {
  const auto value = valueFromJSON(text);
  require(!value || contentOf(text), "what the library reads is JSON");
  if (!value) return;
  const auto written = toJSON(*value);
  require(written && contentOf(*written) == contentOf(text), "what was read is written");
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
  const fuzz::Content content{{valid, valid}, {real, static_cast<double>(integer)}};
  require(contentOf(*written) == content, "every key, text and number is written, in order");
  const auto read = valueFromJSON(*written);
  require(read && toJSON(*read) == written, "what is written reads back");
}

}  // namespace

void fuzz::run(std::string_view bytes) {
  readText(bytes);
  writeDictionary(std::string(bytes), fuzz::integerIn(bytes));
}
