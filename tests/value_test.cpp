#include "Marbleway/platform/value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "Marbleway/platform/utf8.h"

namespace marbleway {
namespace {

using ::testing::Eq;
using ::testing::Optional;

TEST(TextTest, KnowsAbsentFromEmptyAndEndsAtNUL) {
  const std::string withNUL("ab\0cd", 5);
  const struct {
    Text text;
    std::optional<std::string> expected;
  } cases[] = {
      {nullptr, std::nullopt},
      {std::nullopt, std::nullopt},
      {static_cast<const char*>(nullptr), std::nullopt},
      {std::optional<std::string>(), std::nullopt},
      {"", ""},
      {"literal", "literal"},
      {withNUL, "ab"},
      {std::string_view(withNUL), "ab"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(text.copy(), expected);
}

TEST(ValueTest, IsMadeFromWhatItHolds) {
  EXPECT_TRUE(Value().isNull());
  EXPECT_TRUE(Value(static_cast<const char*>(nullptr)).isNull());
  EXPECT_TRUE(*Value(true).as<bool>());
  EXPECT_EQ(Value(true).as<std::int64_t>(), nullptr);
  EXPECT_EQ(*Value(7U).as<std::int64_t>(), 7);
  EXPECT_EQ(*Value(std::numeric_limits<std::uint64_t>::max()).as<double>(), 18446744073709551616.0);
  EXPECT_EQ(*Value(2.5F).as<double>(), 2.5);
  EXPECT_EQ(*Value(std::string("a\0b", 3)).as<std::string>(), "a");
}

TEST(DictionaryTest, ALaterEqualKeyReplacesTheValueInItsPlace) {
  Dictionary dictionary{{"a", 1}, {"b", 2}, {"a", 3}};
  EXPECT_EQ(toJSON(dictionary), R"({"a":3,"b":2})");
  for (int i = 0; i < 1000; ++i) dictionary.set("key" + std::to_string(i), i);
  dictionary.set("key500", "again");
  EXPECT_EQ(dictionary.size(), 1002U);
  EXPECT_EQ(*dictionary.find("key500"), Value("again"));
  EXPECT_EQ(dictionary.find("key1000"), nullptr);
}

TEST(ValueTest, ComparesKindAndContentAndNoOrderOfKeys) {
  EXPECT_EQ(Value(Dictionary{{"a", Array{1, "x"}}, {"b", nullptr}}),
            Value(Dictionary{{"b", nullptr}, {"a", Array{1, "x"}}}));
  EXPECT_FALSE(Value(1) == Value(1.0));
  EXPECT_FALSE(Value(Array{1, 2}) == Value(Array{2, 1}));
  EXPECT_FALSE(Value(Dictionary{{"a", 1}}) == Value(Dictionary{{"b", 1}}));
}

Value nested(int levels) {
  Value value;
  for (int i = 0; i < levels; ++i) {
    Array outer;
    outer.push_back(std::move(value));
    value = std::move(outer);
  }
  return value;
}

TEST(ValueTest, NestsDeeperThanAnyStack) {
  constexpr int kLevels = 300000;
  const Value one = nested(kLevels), other = nested(kLevels);
  EXPECT_TRUE(one == other);
  EXPECT_EQ(toJSON(one)->size(), 2U * kLevels + 4);
}

TEST(JSONTest, WritesTheShortestFormOfEachValue) {
  const struct {
    Value value;
    std::optional<std::string> json;
  } cases[] = {
      {nullptr, "null"},
      {true, "true"},
      {-5, "-5"},
      {5.0, "5"},
      {12.5, "12.5"},
      {0.1, "0.1"},
      {1e300, "1e+300"},
      {"a\"\\\n\x01/", R"("a\"\\\n\u0001/")"},
      {Array{1, "two", 3.0, Array{}}, R"([1,"two",3,[]])"},
      {Dictionary{}, "{}"},
      // One bad byte at a time: a cut sequence swallows no quote.
      {"\xE2\x82", "\"\xEF\xBF\xBD\xEF\xBF\xBD\""},
      {Dictionary{{"k\xFF", "v"}}, "{\"k\xEF\xBF\xBD\":\"v\"}"},
      {std::nan(""), std::nullopt},
      {Array{std::numeric_limits<double>::infinity()}, std::nullopt},
  };
  for (const auto& [value, json] : cases) EXPECT_EQ(toJSON(value), json);
}

TEST(JSONTest, ReadsJSONAndNothingElse) {
  EXPECT_THAT(valueFromJSON(R"( {"a":[1,2.5,"x",null,true],"a":{"b":-1}} )"),
              Optional(Eq(Value(Dictionary{{"a", Dictionary{{"b", -1}}}}))));
  EXPECT_THAT(valueFromJSON("3"), Optional(Eq(Value(3))));
  const struct {
    const char* text;
    double number;
  } numbers[] = {{"0e42", 0}, {"0.0e300", 0}, {"1e-5000", 0}, {"25e-1", 2.5}, {"1e19", 1e19}};
  for (const auto& [text, number] : numbers) {
    EXPECT_THAT(valueFromJSON(text), Optional(Eq(Value(number)))) << text;
  }
  const auto arrays = [](std::size_t levels) {
    return std::string(levels, '[').append(levels, ']');
  };
  EXPECT_TRUE(valueFromJSON(arrays(512)));
  for (const std::string& text :
       {std::string(), std::string("{"), std::string("{} x"), std::string("'a'"),
        std::string("\"\xFF\""), std::string("nul"), std::string("1e999"), std::string("9e308"),
        std::string(R"(["\ude00"])"), std::string(R"({"\ude00":1})"), std::string("{}\0x", 4),
        arrays(513), std::string(100000, '[')}) {
    EXPECT_FALSE(valueFromJSON(text)) << text.substr(0, 20);
  }
}

TEST(UTF8Test, ReplacesEachByteOfNoValidSequence) {
  const std::string bad = "\xEF\xBF\xBD";
  const struct {
    std::string text, expected;
  } cases[] = {
      {"plain, and long enough for eight at once", "plain, and long enough for eight at once"},
      {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {"a\x80z", "a" + bad + "z"},
      {"\xC0\xAF", bad + bad},                      // overlong
      {"\xED\xA0\x80", bad + bad + bad},            // a surrogate
      {"\xF4\x90\x80\x80", bad + bad + bad + bad},  // beyond U+10FFFF
      {"\xF0\x9F\x98", bad + bad + bad},
      {"12345678\xE2\x82\"", "12345678" + bad + bad + "\""},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(repaired(text), expected);
}

}  // namespace
}  // namespace marbleway
