#include "Marbleway/platform/value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <tuple>

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
  for (const Text& absent : {Text(nullptr), Text(std::nullopt), Text(std::optional<std::string>()),
                             Text(static_cast<const char*>(nullptr))}) {
    EXPECT_EQ(absent.copy(), std::nullopt);
  }
  EXPECT_EQ(Text(std::string_view()).copy(), "");
  EXPECT_EQ(Text(std::string_view("ab\0cd", 5)).copy(), "ab");
}

TEST(ValueTest, IsMadeFromWhatItHolds) {
  EXPECT_TRUE(Value().isNull());
  EXPECT_TRUE(Value(static_cast<const char*>(nullptr)).isNull());
  EXPECT_EQ(Value(true).as<std::int64_t>(), nullptr);
  EXPECT_EQ(*Value(std::uint64_t{INT64_MAX}).as<std::int64_t>(), INT64_MAX);
  EXPECT_EQ(*Value(std::numeric_limits<std::uint64_t>::max()).as<double>(), 18446744073709551616.0);
  EXPECT_EQ(*Value(std::string("a\0b", 3)).as<std::string>(), "a");
  EXPECT_EQ(Value(123456789.0F), Value(123456790.0));
  EXPECT_EQ(Value(-HUGE_VALF), Value(-kInfinity));
}

TEST(ValueTest, RangesBecomeArraysAndDictionaries) {
  const std::map<std::string, std::vector<std::string>> bakers{{"Ann", {"Rye", "Oat"}}, {"Bo", {}}};
  Dictionary breads(std::map<const char*, bool>{{"Rye", true}});
  for (const auto& [baker, theirs] : bakers) breads.set(baker, Array(theirs));
  EXPECT_EQ(toJSON(breads), R"({"Rye":true,"Ann":["Rye","Oat"],"Bo":[]})");
  EXPECT_FALSE((std::is_constructible_v<Array, std::string>));
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

TEST(ValueTest, CopiesShareAndCompareKindAndContent) {
  const Dictionary ordered{{"a", Array{1, "x"}}, {"b", nullptr}};
  Value first(Dictionary{{"b", nullptr}, {"a", Array{1, "x"}}});
  const Value copy = first;
  EXPECT_EQ(copy.as<Dictionary>(), first.as<Dictionary>());
  EXPECT_EQ(Value(std::move(first)), Value(ordered));
  EXPECT_TRUE(first.isNull());  // NOLINT(bugprone-use-after-move)
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

TEST(JSONTest, WritesAsItReads) {
  for (const char* json :
       {"[-12.5,0.1,123456789012345680000,0.00001234,-1.25e-7,5e-324,1.5e+300,1e+21]",
        R"({"a":[null,-9223372036854775808,[]],"\"\\\b\f\n\r\t\u001F/":true})"}) {
    EXPECT_EQ(toJSON(*valueFromJSON(json)), json);
  }
  EXPECT_EQ(toJSON(Array{-0.0}), "[0]");
  EXPECT_EQ(toJSON(Array{kInfinity}), std::nullopt);
  EXPECT_EQ(json::textOf(-kInfinity), "-Infinity");
  EXPECT_EQ(json::textOf(std::nan("")), "NaN");
}

TEST(JSONTest, ReadsJSONAndNothingElse) {
  EXPECT_THAT(valueFromJSON(R"( {"a":[1,2.5,"x",null,true],"a":{"b":-1}} )"),
              Optional(Eq(Value(Dictionary{{"a", Dictionary{{"b", -1}}}}))));
  for (const auto& [text, number] : {std::pair("0.0e300", 0.0), {"1e-5000", 0}, {"25e-1", 2.5}}) {
    EXPECT_THAT(valueFromJSON(text), Optional(Eq(Value(number)))) << text;
  }
  const auto arrays = [](std::size_t levels) {
    return std::string(levels, '[').append(levels, ']');
  };
  EXPECT_TRUE(valueFromJSON(arrays(512)));
  EXPECT_FALSE(valueFromJSON(arrays(513)));
  EXPECT_FALSE(valueFromJSON(std::string(100000, '[')));
  for (const std::string_view text :
       {"", "{", "{} x", "'a'", "\"\xFF\"", "nul", "1e999", "9e308", R"({"\ude00":1})"}) {
    EXPECT_FALSE(valueFromJSON(text)) << text;
  }
  EXPECT_FALSE(valueFromJSON(std::string_view("{}\0x", 4)));
}

TEST(UTF8Test, EachByteOfNoSequenceIsReplacedAlone) {
  std::vector<std::pair<std::string, std::string>> cases = {
      {R"(\"\)", R"(\"\)"},
      {"\x7F\u00E9\u20AC\U0001F600", "\x7F\u00E9\u20AC\U0001F600"},
      {"\x80", "�"},
      {"\xC3\"", "�\""},  // the quote after a cut sequence is kept
      {"\xE2\x82\\", "��\\"},
      {"\xF0\x9F\x98\n", "���\n"},
      {"\xC0\xAF", "��"},            // overlong
      {"\xED\xA0\x80", "���"},       // a surrogate
      {"\xF4\x90\x80\x80", "����"},  // beyond U+10FFFF
  };
  for (char control = 1; control < 0x20; ++control)
    cases.emplace_back(std::string(2, control), std::string(2, control));
  for (const auto& [text, expected] : cases) {
    for (const auto before : {0UL, 1UL, 2UL, 3UL, 4UL, 5UL, 6UL, 7UL, 4093UL, 4094UL, 4096UL}) {
      const std::string a(before, 'a'), z(before % 10, 'z');
      platform::Buffer buffer;
      buffer.append("\"");
      appendEscaped(buffer, a + text + z);
      buffer.append("\"");
      EXPECT_EQ(valueFromJSON(buffer.view()), Value(a + expected + z));
      EXPECT_EQ(repaired(a + text + z), a + expected + z);
    }
  }
}

// What a locale says of numbers.
struct Marks : std::numpunct<wchar_t> {
  wchar_t point, separator;
  std::string grouping;
  wchar_t do_decimal_point() const override { return point; }
  wchar_t do_thousands_sep() const override { return separator; }
  std::string do_grouping() const override { return grouping; }
};
std::locale localeWith(wchar_t point, wchar_t separator, const std::string& grouping) {
  auto marks = std::make_unique<Marks>();
  std::tie(marks->point, marks->separator, marks->grouping) = std::tie(point, separator, grouping);
  return {std::locale(), marks.release()};
}

TEST(ValidationTest, NumberObeysTheLocalesPunctuation) {
  const struct {
    std::locale locale;
    std::vector<const char*> numbers, others;
  } cases[] = {
      {std::locale(), {"1,234.5"}, {"1.234,5"}},
      {localeWith(L'.', L',', "\3\2"),
       {"12,34,567.5", "1,23,456", "1,000"},
       {"1,234,567", "123,45,678"}},
      {localeWith(L',', L'\u202F', "\3"),
       {"1\u202F234,5", "1234,5"},
       {"1 234,5",
        "1\xE2\x80"
        "234",
        "1.5"}},
      {localeWith(L',', L',', ""), {"1,5", "1234567,25"}, {"1.5", "1,234,567"}},
      {localeWith(L'.', L',', {3, CHAR_MAX}), {"1234567,890", "1,234"}, {"1,234,567"}},
  };
  for (const auto& [locale, numbers, others] : cases) {
    const Punctuation marks = punctuationOf(locale);
    for (const char* text : numbers) EXPECT_TRUE(isDecimal(text, marks)) << text;
    for (const char* text : others) EXPECT_FALSE(isDecimal(text, marks)) << text;
  }
}

}  // namespace
}  // namespace marbleway
