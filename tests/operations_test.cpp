#include <cmath>
#include <limits>
#include <stdexcept>

#include "Marbleway/startup/options.h"
#include "Marbleway/store/store.h"
#include "tests/support/fixture.h"

// What scenarios cannot state: values that no JSON text holds, very long texts, C++ exceptions, and
// the configuration of C++.
namespace marbleway::testing {

// What an application throws.
struct ImportFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

using OperationsTest = RecordingTest;

TEST_F(OperationsTest, NumbersThatAreNotFiniteLeaveTheirColumnEmpty) {
  Dictionary ad;
  for (const char* key : {"adID", "adName", "adType", "adCategory", "orgID", "orgName"}) {
    ad.set(key, std::nan(""));
  }
  ErrorReport report;
  report.userInfo = {{"n", kInfinity}};
  Marbleway::trackAdConversion(ad, {{"conversionType", 1}, {"conversionValue", -kInfinity}});
  Marbleway::logError("n", "m", report);
  Marbleway::trackEvent("e", {{"Value", std::nan("")}});
  EXPECT_THAT(
      outcome(),
      ElementsAre("Marbleway Message: Impression Tracked", "Marbleway Message: Error Tracked",
                  "Marbleway Message: Event Tracked", row("events", "e|NULL"),
                  row("errors", "n|m|NULL"), row("ads", "Conversion|NULL|NULL|NULL")));
  readOptions({{"DispatchTime", std::nan("")}, {"SDKEnvironment", -kInfinity}});
  EXPECT_THAT(lines(), SizeIs(1));
  EXPECT_EQ(DispatchTime, 30);
  EXPECT_EQ(apiURL.load(), "https://collect.marbleway.invalid/v2/");
}

TEST_F(OperationsTest, AnyTextMakesARowAndNoRowSpoilsABatch) {
  const std::string bad = "\xEF\xBF\xBD", megabyte(1 << 20, 'm');
  Value deep;
  std::string deepJSON = "null";
  for (int level = 0; level < 1000; ++level) {
    deep = level % 2 == 0 ? Value(Array{deep}) : Value(Dictionary{{"d", deep}});
    deepJSON.insert(0, level % 2 == 0 ? "[" : R"({"d":)").append(level % 2 == 0 ? "]" : "}");
  }
  const struct {
    std::string name;
    Dictionary attributes;
    std::string recordedName, recordedAttributes;
  } cases[] = {
      {"caf\xE9", {{"k\xFF", "\xC3"}}, "caf" + bad, R"({"k)" + bad + R"(":")" + bad + R"("})"},
      {std::string("a\0b", 3), {{"k", std::string("c\0d", 3)}}, "a", R"({"k":"c"})"},
      {megabyte, {{"k", megabyte}}, megabyte, R"({"k":")" + megabyte + R"("})"},
      {"deep", {{"k", deep}}, "deep", R"({"k":)" + deepJSON + "}"},
      {"\x01\n\\", {{"k", "\x01\n\\"}}, "\x01\n\\", R"({"k":"\u0001\n\\"})"},
  };
  for (const auto& event : cases) Marbleway::trackEvent(event.name, event.attributes);
  time->advance(std::chrono::seconds(30));
  const auto written = takeRows();
  ASSERT_THAT(written, SizeIs(std::size(cases)));
  const auto batch = valueFromJSON(http->requests().back().body);
  ASSERT_TRUE(batch);
  const auto& data = *batch->as<Dictionary>()->find("BatchData")->as<Dictionary>();
  const auto& events = *data.find("Events")->as<Array>();
  ASSERT_THAT(events, SizeIs(std::size(cases)));
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& [name, attributes, recordedName, recordedAttributes] = cases[i];
    // Not EXPECT_EQ, which would print megabytes.
    EXPECT_TRUE(written[i] == row("events", recordedName + "|" + recordedAttributes)) << i;
    const auto& event = *events[i].as<Dictionary>();
    EXPECT_TRUE(*event.find("EventName") == recordedName) << i;
    EXPECT_TRUE(*event.find("EventAttributes") == recordedAttributes) << i;
  }
}

TEST_F(OperationsTest, PushMessageWithInvalidTextIsRepaired) {
  Marbleway::trackPushNotification({{"aps", Dictionary{{"mrbw_data", true},
                                                       {"mrbw_messageID", "m\xFF"},
                                                       {"mrbw_messageAction", "LaunchWebURL"},
                                                       {"mrbw_messageLink", "https://\xFF"}}}});
  EXPECT_THAT(rows("mrbw_v2_messages"), ElementsAre(HasSubstr("m\xEF\xBF\xBD|NULL|")));
  EXPECT_TRUE(interface->openedURLs().empty());
}

// A matcher that backtracks or recurses does not come to an end here.
TEST_F(OperationsTest, MegabyteIsMatchedWithoutBacktracking) {
  const std::string letters(1 << 20, 'a'), digits(1 << 20, '1');
  const std::string address = "http://" + letters + "." + letters;
  Marbleway::setUserAttribute("Website", address + "!");
  Marbleway::setUserAttribute("Website", "http://" + digits + "." + digits + "!");
  Marbleway::setUserAttribute("EmailAddress", letters + "@" + letters + ".");
  Marbleway::setUserAttribute("Phone", digits);
  Marbleway::linkUser(letters + "@" + letters, "email");
  EXPECT_TRUE(takeRows().empty());
  Marbleway::setUserAttribute("Website", address);
  EXPECT_TRUE(takeRows() == std::vector{row("user_attributes", "Website|" + address + "|Set")});
}

TEST_F(OperationsTest, CaughtExceptionIsRecordedWithTypeReasonAndCallStack) {
  try {
    throw ImportFailure("no such file");
  } catch (const std::exception& caught) {
    Marbleway::logError("Import", "failed", caught);
  }
  const auto recorded = query(storePath(), "SELECT ErrorDetails FROM mrbw_v2_errors");
  ASSERT_THAT(recorded, SizeIs(1));
  const auto details = valueFromJSON(recorded[0]);
  ASSERT_TRUE(details);
  const auto& fields = *details->as<Dictionary>();
  EXPECT_EQ(*fields.find("ExceptionName"), Value("marbleway::testing::ImportFailure"));
  EXPECT_EQ(*fields.find("ExceptionReason"), Value("no such file"));
  const auto& addresses = *fields.find("ExceptionCallStackReturnAddresses")->as<Array>();
  EXPECT_FALSE(addresses.empty());
  EXPECT_EQ(addresses.size(), fields.find("ExceptionCallStackSymbols")->as<Array>()->size());
  EXPECT_EQ(fields.find("ExceptionUserInfo"), nullptr);
}

TEST_F(OperationsTest, ExceptionWithoutAReasonIsRecordedWithoutOne) {
  struct Speechless : std::exception {
    const char* what() const noexcept override { return nullptr; }
  };
  Marbleway::logError("n", "m", Speechless());
  EXPECT_THAT(outcome(),
              ElementsAre("Marbleway Message: Error Tracked", Not(HasSubstr("ExceptionReason"))));
}

using ConfigurationTest = MarblewayTest;

TEST_F(ConfigurationTest, OnlyServerURLsAreAcceptedAndTheRefusedMemberIsNamed) {
  const std::pair<std::string Configuration::*, const char*> members[] = {
      {&Configuration::developmentURL, "developmentURL"},
      {&Configuration::testURL, "testURL"},
      {&Configuration::productionURL, "productionURL"},
  };
  for (const auto& [member, name] : members) {
    Configuration configuration;
    configuration.documentsDirectory = directory.path();
    for (const char* accepted : {"http://a/v2/", "https://a.example:8443/base/v2/",
                                 "http://[::1]:80/v2/", "http://u@a/v2/"}) {
      configuration.*member = accepted;
      EXPECT_NO_THROW(configure(configuration)) << accepted;
    }
    configuration.documentsDirectory = directory.path() / "refused";
    for (const char* refused :
         {"", "a/v2/", "ftp://a/v2/", "http://a", "http://a/v2", "http://a/v3/", "http:///v2/",
          "http://:80/v2/", "http://u@/v2/", "http://a/?x=/v2/", "http://a/#/v2/", "http://a b/v2/",
          "http://a\r\nX: y/v2/", "http://a\\v2/", "http://\xC3\xA9/v2/"}) {
      configuration.*member = refused;
      EXPECT_THAT([&] { configure(configuration); },
                  ::testing::ThrowsMessage<std::invalid_argument>(HasSubstr(name)))
          << refused;
    }
  }
  EXPECT_EQ(std::filesystem::path(pathOf(Store::event)).parent_path(), directory.path());
}

TEST_F(ConfigurationTest, WhatTheHostLeavesOutIsFilledIn) {
  configure({.documentsDirectory = directory.path()});
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").filename();
  beginSession();
  EXPECT_THAT(query(storePath(), "SELECT BundleID, AppVersion FROM mrbw_v2_sessions"),
              ElementsAre(program + "|1.0"));
}

}  // namespace
}  // namespace marbleway::testing
