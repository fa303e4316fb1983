#include <cmath>
#include <cstdlib>
#include <limits>

#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::SizeIs;

class EventsTest : public RecordingTest {
 protected:
  // Numbers are read in the user's locale, once for the process.
  static void SetUpTestSuite() { setenv("LC_ALL", "C", 1); }
};

TEST_F(EventsTest, NamesAreRecordedUncheckedAndWithoutAttributesAsNULL) {
  const Dictionary some{{"b", Array{1, Dictionary{{"c", nullptr}}}}, {"a", true}};
  const std::string json = R"(|{"b":[1,{"c":null}],"a":true})";
  const std::string event = "Marbleway Message: Event Tracked";
  const std::string view = "Marbleway Message: Screen View Tracked";
  isPrivacyMode = true;
  const std::pair<Text, std::string> names[] = {{"x", "x"}, {"", ""}, {nullptr, "NULL"}};
  for (const auto& [name, column] : names) {
    Marbleway::trackEvent(name);
    Marbleway::trackEvent(name, {});
    Marbleway::trackEvent(name, some);
    EXPECT_THAT(outcome(),
                ElementsAre(event, event, event, row("events", column + "|NULL"),
                            row("events", column + "|{}"), row("events", column + json)));
    Marbleway::trackScreenView(name);
    Marbleway::trackScreenView(name, {});
    Marbleway::trackScreenView(name, some);
    EXPECT_THAT(outcome(), ElementsAre(view, view, view, row("screen_views", column + "|NULL"),
                                       row("screen_views", column + "|{}"),
                                       row("screen_views", column + json)));
  }
}

TEST_F(EventsTest, AValueThatIsNoNumberDrawsALineAndIsRecordedAllTheSame) {
  // clang-format off
  const Value numbers[] = {5, -2.5, std::nan(""), "5", "-5", "+5", "007", "1234", ".5", "5.", "1,234.5", "12,345,678", "0,000", "1e5", "1.5E-3", "-1,000.25e+2"};
  const Value others[] = {"abc", "", "5 kg", " 5", "5 ", "--5", "-", ".", "1.2.3", "1,23", "1,2345", "1234,567", ",500.5", "1,", "1.5,000", "e5", "1e", "1e+", "0x10", "inf", "nan", "5\xFF", true, nullptr, Array{5}, Dictionary{{"Value", 5}}};
  // clang-format on
  const auto text = [](const Value& value) { return toJSON(value).value_or("not finite"); };
  const std::string error = "Marbleway Error: Not a Valid Number";
  for (const char* key : {"Value", "value"}) {
    for (const Value& value : numbers) {
      Marbleway::trackEvent("e", {{key, value}});
      EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Event Tracked", _)) << text(value);
    }
    for (const Value& value : others) {
      Marbleway::trackScreenView("s", {{key, value}});
      EXPECT_THAT(outcome(), ElementsAre(error, "Marbleway Message: Screen View Tracked", _))
          << text(value);
    }
  }
  // Each spelling is looked at, and no third.
  Marbleway::trackEvent("e", {{"value", "x"}, {"VALUE", "x"}, {"Value", "abc"}});
  EXPECT_THAT(outcome(),
              ElementsAre(error, error, "Marbleway Message: Event Tracked",
                          row("events", R"(e|{"value":"x","VALUE":"x","Value":"abc"})")));
}

TEST_F(EventsTest, WhateverIsHandedOverMakesARowAndNoRowSpoilsABatch) {
  const std::string bad = "\xEF\xBF\xBD", megabyte(1 << 20, 'm');
  Value deep;
  std::string deepJSON = "null";
  for (int level = 0; level < 1000; ++level) {
    deep = level % 2 == 0 ? Value(Array{deep}) : Value(Dictionary{{"d", deep}});
    deepJSON.insert(0, level % 2 == 0 ? "[" : R"({"d":)").append(level % 2 == 0 ? "]" : "}");
  }
  const double infinity = std::numeric_limits<double>::infinity();
  const struct {
    std::string name;
    Dictionary attributes;
    std::string recordedName, recordedAttributes;
  } cases[] = {
      {"caf\xE9", {{"k\xFF", "\xC3"}}, "caf" + bad, R"({"k)" + bad + R"(":")" + bad + R"("})"},
      {"cut \xE2\x82\"", {}, "cut " + bad + bad + "\"", "{}"},
      {std::string("a\0b", 3), {{"k", std::string("c\0d", 3)}}, "a", R"({"k":"c"})"},
      {"not a number", {{"k", std::nan("")}}, "not a number", "NULL"},
      {"infinite", {{"k", Array{1, Dictionary{{"l", -infinity}}}}}, "infinite", "NULL"},
      {megabyte, {{"k", megabyte}}, megabyte, R"({"k":")" + megabyte + R"("})"},
      {"deep", {{"k", deep}}, "deep", R"({"k":)" + deepJSON + "}"},
      {"\x01\n\\", {{"k", "\x01\n\\"}}, "\x01\n\\", R"({"k":"\u0001\n\\"})"},
  };
  for (const auto& event : cases) Marbleway::trackEvent(event.name, event.attributes);
  time->advance(std::chrono::seconds(30));
  const auto written = takeRows();
  ASSERT_THAT(written, SizeIs(std::size(cases)));
  ASSERT_THAT(http->requests(), SizeIs(2));  // the handshake and the batch
  const auto batch = valueFromJSON(http->requests()[1].body);
  ASSERT_TRUE(batch);
  const auto& data = *batch->as<Dictionary>()->find("BatchData")->as<Dictionary>();
  const auto& events = *data.find("Events")->as<Array>();
  ASSERT_THAT(events, SizeIs(std::size(cases)));
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& [name, attributes, recordedName, recordedAttributes] = cases[i];
    SCOPED_TRACE(i);
    const auto columns = std::string(recordedName).append("|").append(recordedAttributes);
    // Not EXPECT_EQ, which would print megabytes.
    EXPECT_TRUE(written[i] == row("events", columns));
    const auto& event = *events[i].as<Dictionary>();
    EXPECT_TRUE(*event.find("EventName") == recordedName);
    EXPECT_TRUE(*event.find("EventAttributes") ==
                (recordedAttributes == "NULL" ? "" : recordedAttributes));
  }
}

TEST_F(EventsTest, WithoutASessionOneIsStartedAndTheRowIsWrittenInIt) {
  Marbleway::stopSession();
  ASSERT_EQ(sessionID.load(), std::nullopt);
  lines();
  time->advance(std::chrono::seconds(10));
  Marbleway::trackEvent("first");
  const std::string id = sessionID.load().value_or("none");
  EXPECT_NE(id, kFirstSession);
  EXPECT_EQ(defaults->text("Marbleway_SharedSessionID"), id);
  Marbleway::trackScreenView("second");
  const std::string now = "2026-01-02 00:00:10.000";
  EXPECT_THAT(rows("mrbw_v2_sessions"),
              ElementsAre(::testing::AllOf(::testing::StartsWith(id), ::testing::EndsWith(now))));
  EXPECT_THAT(rows("mrbw_v2_events"), ElementsAre(id + "|first|NULL|" + now));
  EXPECT_THAT(rows("mrbw_v2_screen_views"), ElementsAre(id + "|second|NULL|" + now));
  EXPECT_THAT(lines(), ElementsAre("Marbleway Message: Event Tracked",
                                   "Marbleway Message: Screen View Tracked"));
}

}  // namespace
}  // namespace marbleway::testing
