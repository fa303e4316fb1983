// Any dictionary to JSON and back.

#include <cmath>

#include "Marbleway/platform/json.h"
#include "fuzz/made_value.h"
#include "fuzz/setting.h"
#include "fuzz/strict_json.h"

namespace {

using namespace marbleway;

/// What JSON has to hold of a value.
struct Content {
  std::vector<std::string> texts;  // every key and text, in order
  std::vector<double> numbers;     // every number, in order
  bool isFinite = true;

  explicit Content(const Value& value) { add(value); }
  void add(const Value& value) {
    if (const auto* dictionary = value.as<Dictionary>()) {
      for (const auto& [key, member] : *dictionary) {
        texts.push_back(fuzz::withReplacements(key));
        add(member);
      }
    } else if (const auto* array = value.as<Array>()) {
      for (const Value& element : *array) add(element);
    } else if (const auto* text = value.as<std::string>()) {
      texts.push_back(fuzz::withReplacements(*text));
    } else if (const auto* real = value.as<double>()) {
      isFinite = isFinite && std::isfinite(*real);
      numbers.push_back(*real);
    } else if (const auto* integer = value.as<std::int64_t>()) {
      numbers.push_back(static_cast<double>(*integer));
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider bytes(data, size);
  const Value given = fuzz::madeDictionary(bytes);
  const Content content(given);

  const auto written = toJSON(given);
  fuzz::require(written.has_value() == content.isFinite, "numbers that are finite can be written");
  if (!written) return 0;
  const auto strict = fuzz::readStrictly(*written);
  fuzz::require(strict.has_value(), "what is written is JSON");
  fuzz::require(strict->texts == content.texts, "every key and text is there, in order");

  const auto read = valueFromJSON(*written);
  fuzz::require(read.has_value(), "what is written can be read");
  const Content readContent(*read);
  // Keys that differ in invalid bytes alone have become one.
  const bool isComplete = readContent.texts.size() == content.texts.size();
  fuzz::require(!isComplete || readContent.texts == content.texts, "every text reads back");
  fuzz::require(!isComplete || readContent.numbers == content.numbers, "every number reads back");
  return 0;
}
