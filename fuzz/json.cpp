// Any bytes as a JSON text: read by the library exactly when the strict reader reads them, and
// written back as what was read.
//
// seed: {"a":[1,-2.5e3,"\u00e9\ud83d\ude00",true,false,null],"b":{}}
// seed: [[[[0.1]]],"\\\/\b\f\n\r\t"]

#include "Marbleway/platform/json.h"

#include "fuzz/setting.h"
#include "fuzz/strict_json.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace marbleway;
  const std::string_view text = fuzz::textOf(data, size);
  const auto value = valueFromJSON(text);
  const auto strict = fuzz::readStrictly(text);
  fuzz::require(!value || strict, "what the library reads is JSON");
  // Beyond a double, or 512 levels, the library takes nothing; a double has 309 digits at most.
  const bool isWithin = strict && !strict->hasExponent && strict->deepest <= 512 && size < 309;
  fuzz::require(value || !isWithin, "the library reads all JSON");
  if (!value) return 0;

  const auto written = toJSON(*value);
  fuzz::require(written.has_value(), "what was read can be written");
  fuzz::require(fuzz::readStrictly(*written).has_value(), "what is written is JSON");
  const auto again = valueFromJSON(*written);  // 5.0 is "5" by now, an integer
  fuzz::require(again.has_value(), "what is written can be read");
  const bool hasNegativeZero = text.find("-0") != std::string_view::npos;  // read without its sign
  fuzz::require(hasNegativeZero || toJSON(*again) == written, "writing and reading change nothing");

  const auto pretty = json::toPrettyJSON(*value);
  fuzz::require(pretty && valueFromJSON(*pretty) == *again, "line breaks change nothing");
  return 0;
}
