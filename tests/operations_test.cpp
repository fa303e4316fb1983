#include <cmath>
#include <limits>
#include <stdexcept>

#include "Marbleway/startup/options.h"
#include "Marbleway/store/store.h"
#include "tests/support/observer.h"

// What scenarios cannot state: values that no JSON text holds, very long texts, C++ exceptions, and
// the configuration of C++.
namespace marbleway::testing {

// What an application throws.
struct ImportFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

class OperationsTest : public ::testing::Test, public ObservedWorld {
 protected:
  void SetUp() override {
    beginSession();
    takeEffects();
  }

  // The details of the only error.
  Dictionary details() const {
    const auto rows = query(storePath(), "SELECT ErrorDetails FROM mrbw_v2_errors");
    return rows.size() == 1 ? *valueFromJSON(rows[0])->as<Dictionary>() : Dictionary();
  }
};

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
  EXPECT_THAT(takeEffects(),
              ElementsAre("ads #1|Conversion|NULL|NULL|NULL|@0", "Message: Impression Tracked",
                          "errors #1|n|m|NULL|@0", "Message: Error Tracked", "events #1|e|NULL|@0",
                          "Message: Event Tracked"));
  readOptions({{"DispatchTime", std::nan("")}, {"SDKEnvironment", -kInfinity}});
  EXPECT_THAT(takeEffects(), SizeIs(1));
  EXPECT_EQ(DispatchTime, 30);
  EXPECT_EQ(apiURL.load(), "https://collect.marbleway.invalid/v2/");
}

TEST_F(OperationsTest, PushMessageWithInvalidTextIsRepaired) {
  Marbleway::trackPushNotification({{"aps", Dictionary{{"mrbw_data", true},
                                                       {"mrbw_messageID", "m\xFF"},
                                                       {"mrbw_messageAction", "LaunchWebURL"},
                                                       {"mrbw_messageLink", "https://\xFF"}}}});
  EXPECT_THAT(takeEffects(), ElementsAre("messages m\uFFFD|NULL|vendor|iOS|@0",
                                         "Message: Push Notification Tracked", "badge 0"));
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
  EXPECT_THAT(rows("mrbw_v2_user_attributes"), IsEmpty());
  Marbleway::setUserAttribute("Website", address);
  EXPECT_THAT(rows("mrbw_v2_user_attributes"), SizeIs(1));
}

TEST_F(OperationsTest, CaughtExceptionIsRecordedWithTypeReasonAndCallStack) {
  try {
    throw ImportFailure("no such file");
  } catch (const std::exception& caught) {
    Marbleway::logError("Import", "failed", caught);
  }
  const Dictionary fields = details();
  ASSERT_EQ(fields.size(), 4U);
  EXPECT_EQ(*fields.find("ExceptionName"), Value("marbleway::testing::ImportFailure"));
  EXPECT_EQ(*fields.find("ExceptionReason"), Value("no such file"));
  const auto& addresses = *fields.find("ExceptionCallStackReturnAddresses")->as<Array>();
  EXPECT_FALSE(addresses.empty());
  EXPECT_EQ(addresses.size(), fields.find("ExceptionCallStackSymbols")->as<Array>()->size());
}

TEST_F(OperationsTest, ExceptionWithoutAReasonIsRecordedWithoutOne) {
  struct Speechless : std::exception {
    const char* what() const noexcept override { return nullptr; }
  };
  Marbleway::logError("n", "m", Speechless());
  EXPECT_EQ(details().size(), 3U);
  EXPECT_EQ(details().find("ExceptionReason"), nullptr);
}

TEST_F(OperationsTest, ReportIsStoredInAFixedOrder) {
  ErrorReport report;
  report.userInfo = {{"z", 1}, {"a", Array()}};
  report.callStackSymbols = {"0 main", "1 start"};
  report.callStackReturnAddresses = {1, 140733193388032};
  report.reason = "";
  report.name = "N";
  Marbleway::logError("Import", nullptr, report);
  Marbleway::logError("Import", "", ErrorReport());
  EXPECT_THAT(
      rows("mrbw_v2_errors"),
      ElementsAre(::testing::HasSubstr(R"(Import|NULL|{"ExceptionName":"N","ExceptionReason":"",)"
                                       R"("ExceptionCallStackReturnAddresses":[1,140733193388032],)"
                                       R"("ExceptionCallStackSymbols":["0 main","1 start"],)"
                                       R"("ExceptionUserInfo":{"z":1,"a":[]}}|)"),
                  ::testing::HasSubstr("|Import||{}|")));
}

using ConfigurationTest = MarblewayTest;

TEST_F(ConfigurationTest, RefusedMemberIsNamedAndNothingChanges) {
  const std::pair<std::string Configuration::*, const char*> members[] = {
      {&Configuration::developmentURL, "developmentURL"},
      {&Configuration::testURL, "testURL"},
      {&Configuration::productionURL, "productionURL"},
  };
  for (const auto& [member, name] : members) {
    Configuration configuration{.documentsDirectory = directory.path() / "refused"};
    configuration.*member = "http://a\r\nX: y/v2/";
    EXPECT_THAT([&] { configure(configuration); },
                ::testing::ThrowsMessage<std::invalid_argument>(::testing::HasSubstr(name)));
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
