#include <atomic>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <thread>

#include "Marbleway/platform/testing/recording_interface.h"
#include "Marbleway/startup/options.h"
#include "Marbleway/store/store.h"
#include "tests/support/fixture.h"

// What scenarios cannot state: values that no JSON text holds, very long texts, C++ exceptions,
// services that throw, and the configuration of C++.
namespace marbleway::testing {

// What an application throws.
struct ImportFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct Speechless : std::exception {
  const char* what() const noexcept override { return nullptr; }
};

namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

using OperationsTest = RecordingTest;

TEST_F(OperationsTest, ValuesThatNoJSONHoldsLeaveTheirColumnEmpty) {
  const auto screen = std::make_shared<platform::testing::RecordingInterface>();
  platform::install({.userInterface = screen});
  Dictionary ad;
  for (const char* key : {"adID", "adName", "adType", "adCategory", "orgID", "orgName"}) {
    ad.set(key, std::nan(""));
  }
  ErrorReport report;
  report.userInfo = {{"n", kInfinity}};
  Marbleway::trackAdConversion(ad, {{"conversionType", 1}, {"conversionValue", -kInfinity}});
  Marbleway::logError("n", "m", report);
  Marbleway::trackEvent("e", {{"Value", std::nan("")}});
  Marbleway::trackPushNotification({{"aps", Dictionary{{"mrbw_data", true},
                                                       {"mrbw_messageID", "m\xFF"},
                                                       {"mrbw_messageAction", "LaunchWebURL"},
                                                       {"mrbw_messageLink", "https://\xFF"}}}});
  readOptions({{"DispatchTime", std::nan("")}, {"SDKEnvironment", -kInfinity}});
  EXPECT_THAT(
      query(storePath(),
            "SELECT MessageID, ErrorDetails, EventAttributes, AdDetails, ConversionDetails FROM "
            "mrbw_v2_messages, mrbw_v2_errors, mrbw_v2_events, mrbw_v2_ads"),
      ElementsAre("m\uFFFD|NULL|NULL|NULL|NULL"));
  EXPECT_THAT(screen->openedURLs(), IsEmpty());
  EXPECT_EQ(DispatchTime, 30);
  EXPECT_EQ(apiURL.load(), "https://collect.marbleway.invalid/v2/");
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
  Marbleway::logError("n", "m", Speechless());
  EXPECT_THAT(query(storePath(),
                    "SELECT ErrorDetails ->> 'ExceptionName', ErrorDetails ->> 'ExceptionReason',"
                    "json_array_length(ErrorDetails, '$.ExceptionCallStackReturnAddresses') > 0,"
                    "json_array_length(ErrorDetails, '$.ExceptionCallStackSymbols') > 0,"
                    "(SELECT count(*) FROM json_each(ErrorDetails)) FROM mrbw_v2_errors"),
              ElementsAre("marbleway::testing::ImportFailure|no such file|1|1|4",
                          "marbleway::testing::Speechless|NULL|1|1|3"));
}

TEST_F(OperationsTest, ReportIsStoredInAFixedOrder) {
  ErrorReport report;
  report.userInfo = {{"z", 1}, {"a", Array()}};
  report.callStackSymbols = {"0 main", "1 start"};
  report.callStackReturnAddresses = {1, 3221225472};
  report.reason = "";
  report.name = "N";
  Marbleway::logError("Import", nullptr, report);
  Marbleway::logError("Import", "", ErrorReport());
  EXPECT_THAT(
      rows("mrbw_v2_errors"),
      ElementsAre(::testing::HasSubstr(R"(Import|NULL|{"ExceptionName":"N","ExceptionReason":"",)"
                                       R"("ExceptionCallStackReturnAddresses":[1,3221225472],)"
                                       R"("ExceptionCallStackSymbols":["0 main","1 start"],)"
                                       R"("ExceptionUserInfo":{"z":1,"a":[]}}|)"),
                  ::testing::HasSubstr("|Import||{}|")));
}

using ServiceTest = MarblewayTest;

// The server's timeout is 0, and the loop's thread expires the session amid the calls of this one.
TEST_F(ServiceTest, RowsCarryTheSessionOfTheirAdmission) {
  std::atomic<bool> isDone = false;
  Marbleway::initMarbleway("token", {{"UploadingEnabled", false}, {"PrivacyMode", false}});
  answer(200);
  std::thread loop([&] {
    while (!isDone) time->advance(100ms);
  });
  for (int i = 0; i < 100; ++i) {
    Marbleway::trackEvent("e", {{"i", i}});
    Marbleway::linkCompany("c");
    Marbleway::trackScreenView("s");
  }
  isDone = true;
  loop.join();
  EXPECT_THAT(query(storePath(),
                    "SELECT SessionID FROM mrbw_v2_events UNION SELECT SessionID FROM "
                    "mrbw_v2_screen_views UNION SELECT SessionID FROM "
                    "mrbw_v2_companies EXCEPT SELECT SessionID FROM mrbw_v2_sessions"),
              IsEmpty());
}

struct Failing : platform::Console,
                 platform::Clock,
                 platform::StatusBar,
                 platform::HttpClient,
                 platform::testing::MemoryDefaults {
  [[noreturn]] static void fail() { throw std::runtime_error("no service"); }
  void writeLine(std::string_view) override { fail(); }
  std::chrono::system_clock::time_point now() override { fail(); }
  std::shared_ptr<const platform::View> view() override { fail(); }
  void post(platform::HttpRequest, platform::testing::HeldHttp::Done) override { fail(); }
  void setText(std::string_view, std::string_view) override { fail(); }
  void remove(std::string_view) override { fail(); }
};

TEST_F(ServiceTest, StartUpRunsEveryStepDespiteAThrowingService) {
  const auto none = std::make_shared<Failing>();
  for (const platform::Platform& services :
       {platform::Platform{.userDefaults = none}, {.console = none}, {.clock = none}}) {
    TemporaryDirectory documents;
    configure({.documentsDirectory = documents.path()});
    platform::install({.console = console, .clock = time, .userDefaults = defaults});
    platform::install(services);
    resetState();
    const auto before = http->requests().size();
    Marbleway::initMarbleway("token");
    EXPECT_TRUE(sessionID.load() && isValidSession && isSDKValid);
    EXPECT_TRUE(std::filesystem::exists(documents.path() / DBFileName));
    EXPECT_TRUE(std::filesystem::exists(documents.path() / HTTPDBFileName));
    EXPECT_EQ(apiURL.load(), "https://collect.marbleway.invalid/v2/");
    EXPECT_THAT(http->requests(), SizeIs(before + 1));
  }
}

TEST_F(ServiceTest, NoOperationLetsAnExceptionOut) {
  beginSession();
  const auto none = std::make_shared<Failing>();
  platform::install({.console = none, .httpClient = none, .userDefaults = none, .statusBar = none});
  isValidSession = false;
  Marbleway::linkCompany("refused");
  Marbleway::trackEvent("e", {{"Value", "x"}});
  Marbleway::startSession();
  Marbleway::linkUser("u", "id");
  Marbleway::setUserAttribute("Phone", "x");
  Marbleway::unlinkCompany();
  Marbleway::trackDeepLink("?mrbw_dlid=1");
  Marbleway::trackPushNotification({{"aps", Dictionary{{"mrbw_data", true}}}});
  Marbleway::logError("n", "m", std::runtime_error("r"));
  EXPECT_TRUE(TimerTask.load() && isValidSession);
  Marbleway::unlinkUser();
  EXPECT_FALSE(TimerTask.load() || sessionID.load());
  EXPECT_THAT(rows("mrbw_v2_deep_links"), SizeIs(1));
  EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(1));  // its line was lost, and so were the settings
  EXPECT_THAT(query(storePath(), "SELECT UserID FROM mrbw_v2_users"), ::testing::Contains("u"));
}

TEST_F(ServiceTest, RefusedMemberIsNamedAndNothingChanges) {
  const Configuration configuration{.documentsDirectory = directory.path() / "refused",
                                    .testURL = "http://a\r\nX: y/v2/"};
  EXPECT_THAT([&] { configure(configuration); },
              ::testing::ThrowsMessage<std::invalid_argument>(::testing::HasSubstr("testURL")));
  const auto documents = std::filesystem::path(pathOf(Store::event)).parent_path();
  EXPECT_EQ(documents.filename(), directory.path().filename());
}

TEST_F(ServiceTest, WhatTheHostLeavesOutIsFilledIn) {
  configure({.documentsDirectory = directory.path()});
  const std::string program =
      std::filesystem::path(::testing::internal::GetArgvs()[0]).stem().string();
  beginSession();
  EXPECT_THAT(query(storePath(), "SELECT BundleID, AppVersion FROM mrbw_v2_sessions"),
              ElementsAre(program + "|1.0"));
  for (const Coordinate& site : Configuration().sites) {
    EXPECT_TRUE(site.latitude == 0 && site.longitude == 0);
  }
}

}  // namespace
}  // namespace marbleway::testing
