#include "Marbleway/platform/value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <string>

#include "Marbleway/core/conversions.h"
#include "Marbleway/platform/escape.h"
#include "Marbleway/platform/json.h"
#include "Marbleway/platform/utf8.h"
#include "Marbleway/tracking/validation.h"

namespace marbleway {
namespace {

using ::testing::Eq;
using ::testing::Optional;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(TextTest, KnowsAbsentFromEmptyAndEndsAtNUL) {
  const std::string withNUL("ab\0cd", 5);
  const struct {
    Text text;
    std::optional<std::string> expected;
    // clang-format off
  } cases[] = {{nullptr, std::nullopt}, {std::nullopt, std::nullopt}, {static_cast<const char*>(nullptr), std::nullopt}, {std::optional<std::string>(), std::nullopt}, {"", ""}, {std::string_view(), ""}, {withNUL, "ab"}, {std::string_view(withNUL), "ab"}};
  // clang-format on
  for (const auto& [text, expected] : cases) EXPECT_EQ(text.copy(), expected);
}

TEST(ValueTest, IsMadeFromWhatItHolds) {
  EXPECT_TRUE(Value().isNull());
  EXPECT_TRUE(Value(static_cast<const char*>(nullptr)).isNull());
  EXPECT_EQ(Value(true).as<std::int64_t>(), nullptr);
  EXPECT_EQ(*Value(7U).as<std::int64_t>(), 7);
  EXPECT_EQ(*Value(std::numeric_limits<std::uint64_t>::max()).as<double>(), 18446744073709551616.0);
  EXPECT_EQ(*Value(std::string("a\0b", 3)).as<std::string>(), "a");
  EXPECT_EQ(Value(0.1F), Value(0.1));
  EXPECT_EQ(Value(123456789.0F), Value(123456790.0));
  EXPECT_EQ(Value(-HUGE_VALF), Value(-kInfinity));
}

TEST(ValueTest, CopiesShareAndWhatWasMovedIsNull) {
  Value first(Array{1, Dictionary{{"a", 1}}});
  const Value copy = first;
  EXPECT_EQ(copy.as<Array>(), first.as<Array>());
  const Value moved = std::move(first);
  EXPECT_TRUE(first.isNull());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(moved, copy);
}

TEST(DictionaryTest, ALaterEqualKeyReplacesTheValueInPlace) {
  Dictionary dictionary{{"a", 1}, {"b", 2}, {"a", 3}};
  EXPECT_EQ(toJSON(dictionary), R"({"a":3,"b":2})");
  for (int i = 0; i < 1000; ++i) dictionary.set("key" + std::to_string(i), i);
  dictionary.set("key500", "again");
  EXPECT_EQ(dictionary.size(), 1002U);
  EXPECT_EQ(*dictionary.find("key500"), Value("again"));
  EXPECT_EQ(dictionary.find("key1000"), nullptr);
}

TEST(ValueTest, ComparesKindAndContentNotTheKeysOrder) {
  EXPECT_EQ(Value(Dictionary{{"a", Array{1, "x"}}, {"b", nullptr}}),
            Value(Dictionary{{"b", nullptr}, {"a", Array{1, "x"}}}));
  EXPECT_FALSE(Value(1) == Value(1.0));
  EXPECT_FALSE(Value(Array{1, 2}) == Value(Array{2, 1}));
  EXPECT_FALSE(Value(Dictionary{{"a", 1}}) == Value(Dictionary{{"b", 1}}));
}

Value nested(int levels) {
  Value value;
  for (int i = 0; i < levels; ++i) {
    value = i % 2 == 0 ? Value(Array{value}) : Value(Dictionary{{"d", value}});
  }
  return value;
}

TEST(ValueTest, NestsDeeperThanAnyStack) {
  constexpr int kLevels = 300000;
  const Value one = nested(kLevels), other = nested(kLevels);
  EXPECT_TRUE(one == other);
  EXPECT_EQ(toJSON(one)->size(), 8U * kLevels / 2 + 4);  // "[]" and "{"d":}"
}

TEST(JSONTest, WritesNumbersAsECMAScriptDoes) {
  // clang-format off
  const std::pair<double, const char*> cases[] = {{0, "0"}, {-0.0, "0"}, {5, "5"}, {-12.5, "-12.5"}, {0.1, "0.1"}, {100000, "100000"}, {1e6, "1000000"}, {1234.5, "1234.5"}, {123456789012345680000.0, "123456789012345680000"}, {0.000001, "0.000001"}, {0.00001234, "0.00001234"}, {-1e-7, "-1e-7"}, {1.25e-7, "1.25e-7"}, {1e21, "1e+21"}, {1.5e300, "1.5e+300"}, {5e-324, "5e-324"}, {-kInfinity, "-Infinity"}, {std::nan(""), "NaN"}};
  // clang-format on
  for (const auto& [number, text] : cases) {
    EXPECT_EQ(json::textOf(number), text);
    EXPECT_EQ(toJSON(Array{number}),
              std::isfinite(number) ? std::optional("[" + std::string(text) + "]") : std::nullopt);
  }
}

TEST(JSONTest, WritesEachKindOfValue) {
  // clang-format off
  const std::pair<Value, const char*> cases[] = {{nullptr, "null"}, {true, "true"}, {INT64_MIN, "-9223372036854775808"}, {Array{1, "two", false, Array{}, Dictionary{}}, R"([1,"two",false,[],{}])"}, {Dictionary{{"a", Array{1}}, {"b", nullptr}}, R"({"a":[1],"b":null})"}, {"a\"\\\b\f\n\r\t\x1F/\x7F", R"("a\"\\\b\f\n\r\t\u001F/)" "\x7F\""}, {Dictionary{{"k\xFF", "\xE2\x82"}}, "{\"k\uFFFD\":\"\uFFFD\uFFFD\"}"}};
  // clang-format on
  for (const auto& [value, json] : cases) EXPECT_EQ(toJSON(value), json);
  EXPECT_EQ(json::toPrettyJSON(Dictionary{{"a", Array{1, Array{}}}, {"b", 2}}),
            "{\n    \"a\": [\n        1,\n        []\n    ],\n    \"b\": 2\n}");
}

TEST(JSONTest, ReadsJSONAndNothingElse) {
  EXPECT_THAT(valueFromJSON(R"( {"a":[1,2.5,"x",null,true],"a":{"b":-1}} )"),
              Optional(Eq(Value(Dictionary{{"a", Dictionary{{"b", -1}}}}))));
  // clang-format off
  const std::pair<const char*, double> numbers[] = {{"0e42", 0}, {"0.0e300", 0}, {"1e-5000", 0}, {"25e-1", 2.5}, {"1e19", 1e19}};
  // clang-format on
  for (const auto& [text, number] : numbers)
    EXPECT_THAT(valueFromJSON(text), Optional(Eq(Value(number)))) << text;
  const auto arrays = [](std::size_t levels) {
    return std::string(levels, '[').append(levels, ']');
  };
  EXPECT_TRUE(valueFromJSON(arrays(512)));
  // clang-format off
  for (const std::string& text : {std::string(), std::string("{"), std::string("{} x"), std::string("'a'"), std::string("\"\xFF\""), std::string("nul"), std::string("1e999"), std::string("9e308"), std::string(R"(["\ude00"])"), std::string(R"({"\ude00":1})"), std::string("{}\0x", 4), arrays(513), std::string(100000, '[')}) {
    // clang-format on
    EXPECT_FALSE(valueFromJSON(text)) << text.substr(0, 20);
  }
}

TEST(UTF8Test, EachByteOfNoSequenceIsReplacedAlone) {
  const std::string bad = "\uFFFD";
  std::vector<std::pair<std::string, std::string>> cases = {
      {R"(\"\)", R"(\"\)"},
      {"\x7F\u00E9\u20AC\U0001F600", "\x7F\u00E9\u20AC\U0001F600"},
      {"\x80", bad},
      {"\xC3\"", bad + "\""},  // the quote after a cut sequence is kept
      {"\xE2\x82\\", bad + bad + "\\"},
      {"\xF0\x9F\x98\n", bad + bad + bad + "\n"},
      {"\xC0\xAF", bad + bad},                      // overlong
      {"\xED\xA0\x80", bad + bad + bad},            // a surrogate
      {"\xF4\x90\x80\x80", bad + bad + bad + bad},  // beyond U+10FFFF
  };
  for (char control = 1; control < 0x20; ++control)
    cases.emplace_back(std::string(2, control), std::string(2, control));
  for (const auto& [text, expected] : cases) {
    for (const std::size_t before :
         {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 4093U, 4094U, 4095U, 4096U}) {  // in and across blocks
      const auto padded = [before](std::string value) {
        return value.insert(0, before, 'a').append(before % 10, 'z');
      };
      platform::Buffer buffer;
      buffer.append("\"");
      appendEscaped(buffer, padded(text));
      buffer.append("\"");
      EXPECT_EQ(valueFromJSON(buffer.view()), Value(padded(expected))) << buffer.view();
      EXPECT_EQ(repaired(padded(text)), padded(expected));
    }
  }
}

TEST(UTF8Test, EncodesCharacters) {
  // clang-format off
  const std::pair<char32_t, const char*> cases[] = {{U'.', "."},           {U'\u00A0', "\u00A0"}, {U'\u202F', "\u202F"}, {U'\U0001F600', "\U0001F600"}, {0xD800, "\uFFFD"},    {0x110000, "\uFFFD"}};
  // clang-format on
  for (const auto& [character, text] : cases) EXPECT_EQ(encoded(character), text);
}

TEST(ConversionsTest, ATextIsItsLeadingNumber) {
  // clang-format off
  const std::pair<Value, double> cases[] = {{" \t-2.5kg", -2.5}, {"+5", 5}, {".5", .5}, {"1e400", kInfinity}, {"-1e400 s", -kInfinity}, {"1e-400", 0}, {"1e99999999999", kInfinity}, {"1e-99999999999", 0}, {"1" + std::string(400, '0'), kInfinity}, {"0." + std::string(400, '0') + "1e+9", 0}, {"inf", 0}, {"nan", 0}, {"+-5", 0}, {"", 0}, {true, 1}, {nullptr, 0}, {Array{5}, 0}};
  // clang-format on
  for (const auto& [value, number] : cases)
    EXPECT_EQ(toDouble(&value), number) << toJSON(value).value();
  const Value huge(1e300), text("1e39"), yes(" -007x"), no(" -00x");
  EXPECT_EQ(toInteger(&huge), INT64_MAX);
  EXPECT_EQ(toFloat(&text), kInfinity);
  EXPECT_TRUE(toBool(&yes) && !toBool(&no) && !toBool(nullptr));
}

TEST(ValidationTest, ANumberObeysTheLocalesPunctuation) {
  // clang-format off
  const Punctuation english{".", ",", "\3"}, indian{".", ",", "\3\2"}, french{",", "\u202F", "\3"}, swiss{".", "\u2019", "\3"}, kabyle{",", "", ""}, once{".", ",", {3, CHAR_MAX}};
  // clang-format on
  const struct {
    const Punctuation& marks;
    std::vector<const char*> numbers, others;
    // clang-format off
  } cases[] = {{english, {"1,234,567.5", "0,000", "1234", "-.5e+3"}, {"12,34,567", "1234,567", "1,", ",500", "1,,000", "1.5,000", ""}}, {indian, {"12,34,567.5", "1,23,456", "1,000"}, {"1,234,567", "123,45,678", "1,2,345"}}, {french, {"1\u202F234,5", "1234,5"}, {"1 234,5", "1\xE2\x80" "234", "1,234,5", "1.5"}}, {swiss, {"1\u2019234.5"}, {"1'234.5", "1,234.5"}}, {kabyle, {"1,5", "1234567,25"}, {"1.5", "1,234,567", "1 234,5"}}, {once, {"1234567,890", "1,234"}, {"1,234,567"}},};
  // clang-format on
  for (const auto& [marks, numbers, others] : cases) {
    for (const char* text : numbers) EXPECT_TRUE(isDecimal(text, marks)) << text;
    for (const char* text : others) EXPECT_FALSE(isDecimal(text, marks)) << text;
  }
}

TEST(ValidationTest, ReadsWholeMarksFromTheLocale) {
  struct French : std::numpunct<wchar_t> {
    wchar_t do_decimal_point() const override { return L','; }
    wchar_t do_thousands_sep() const override { return L'\u202F'; }
    std::string do_grouping() const override { return "\3"; }
  };
  const Punctuation french =
      punctuationOf(std::locale(std::locale::classic(), std::make_unique<French>().release()));
  EXPECT_TRUE(isDecimal("1\u202F234,5", french));
  EXPECT_TRUE(isDecimal("1,234.5", punctuationOf(std::locale::classic())));
}

}  // namespace
}  // namespace marbleway
