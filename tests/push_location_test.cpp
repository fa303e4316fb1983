#include <functional>

#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using platform::Beacon;
using platform::testing::ShownAlert;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kTracked = "Marbleway Message: Push Notification Tracked";

using PushTest = RecordingTest;

// clang-format off
TEST_F(PushTest, OnlyMarkedMessagesCountAndOnlyNamedOnesHaveARow) {
  const Value unmarked[] = {
      nullptr, true, 1, "aps", Array{Dictionary{{"mrbw_data", true}}}, Dictionary{}, Dictionary{{"mrbw_messageID", "m"}}, Dictionary{{"MRBW_data", true}},
      Dictionary{{"mrbw_data", false}, {"mrbw_messageID", "m"}}, Dictionary{{"mrbw_data", 0}}, Dictionary{{"mrbw_data", "no"}}, Dictionary{{"mrbw_data", nullptr}}, Dictionary{{"mrbw_data", Array{true}}},
  };
  for (const Value& aps : unmarked) Marbleway::trackPushNotification({{"aps", aps}});
  Marbleway::trackPushNotification({});
  Marbleway::trackPushNotification({{"mrbw_data", true}, {"mrbw_messageID", "m"}});
  EXPECT_THAT(outcome(), IsEmpty());
  EXPECT_THAT(interface->badgeNumbers(), IsEmpty());

  const struct {
    Dictionary aps;
    const char* identifiers;  // null: no row
  } marked[] = {
      {{{"mrbw_data", true}, {"mrbw_messageID", "m"}, {"mrbw_userID", "u"}}, "m|u"},
      {{{"mrbw_data", "yes"}, {"mrbw_messageID", "m"}}, "m|NULL"},
      {{{"mrbw_data", 1}, {"mrbw_messageID", "m\xFF"}, {"mrbw_userID", ""}}, "m\xEF\xBF\xBD|"},
      {{{"mrbw_data", 0.5}, {"mrbw_messageID", "m"}, {"mrbw_userID", 7}}, "m|NULL"},
      {{{"mrbw_data", true}, {"mrbw_userID", "u"}}, nullptr},
      {{{"mrbw_data", true}, {"mrbw_messageID", ""}}, nullptr},
      {{{"mrbw_data", true}, {"mrbw_messageID", 5}}, nullptr},
  };
  for (const auto& [aps, identifiers] : marked) {
    std::vector<std::string> expected{kTracked};  // also where there is no row
    if (identifiers) expected.push_back(std::string("messages|").append(identifiers).append("|AAAAAAAA-0000-0000-0000-000000000001|iOS|") + kStart);
    Marbleway::trackPushNotification({{"aps", aps}});
    EXPECT_THAT(outcome(), ElementsAreArray(expected));
  }
  EXPECT_EQ(interface->badgeNumbers(), std::vector<int>(std::size(marked), 0));
  EXPECT_THAT(interface->openedURLs(), IsEmpty());
}

TEST_F(PushTest, ALinkIsOpenedForTwoExactActionsWhereItIsAnAbsoluteURL) {
  const std::string web = "https://example.org/a?b=%20#c";
  const std::pair<Value, Value> opened[] = {
      {"LaunchDeepLink", "myapp://todo/3"}, {"LaunchWebURL", "myapp://todo/3"}, {"LaunchDeepLink", web}, {"LaunchWebURL", web}, {"LaunchWebURL", "mailto:a@example.org"},
  };
  const std::pair<Value, Value> others[] = {
      {"launchWebURL", web}, {"LaunchWebURL ", web}, {"", web}, {nullptr, web}, {7, web},
      {"LaunchWebURL", ""}, {"LaunchWebURL", nullptr}, {"LaunchWebURL", 7}, {"LaunchWebURL", Dictionary{}}, {"LaunchWebURL", "example.org"}, {"LaunchWebURL", "/a/b"},
      {"LaunchWebURL", "://x"}, {"LaunchWebURL", "1a://x"}, {"LaunchWebURL", "https://a b"}, {"LaunchWebURL", "https://a\n"}, {"LaunchWebURL", "https://\xFF"},
  };
  const auto open = [](const Value& action, const Value& link) {
    Marbleway::trackPushNotification({{"aps", Dictionary{{"mrbw_data", true}, {"mrbw_messageAction", action}, {"mrbw_messageLink", link}}}});
  };
  for (const auto& [action, link] : others) open(action, link);
  EXPECT_THAT(interface->openedURLs(), IsEmpty());
  for (const auto& [action, link] : opened) open(action, link);
  EXPECT_THAT(interface->openedURLs(), ElementsAre("myapp://todo/3", "myapp://todo/3", web, web, "mailto:a@example.org"));
}
// clang-format on

// Notes each call and how many messages are stored by then.
struct Witness : platform::testing::RecordingInterface, platform::Console {
  std::function<std::size_t()> countRows;
  std::vector<std::string> seen;

  void note(const char* call) { seen.push_back(call + std::to_string(countRows())); }
  void setBadgeNumber(int) override { note("badge, rows: "); }
  void openURL(std::string_view) override { note("link, rows: "); }
  void writeLine(std::string_view) override { note("line, rows: "); }
};

TEST_F(PushTest, NothingRefusesAMessageWhichIsARowThenALineThenTheBadgeThenTheLink) {
  Marbleway::stopSession();
  isSDKValid = isTrackingEnabled = false;
  isPrivacyMode = true;
  const auto witness = std::make_shared<Witness>();
  witness->countRows = [this] { return rows("mrbw_v2_messages").size(); };
  platform::install({.console = witness, .userInterface = witness});
  Marbleway::trackPushNotification({{"aps", Dictionary{{"mrbw_data", true},
                                                       {"mrbw_messageID", "m"},
                                                       {"mrbw_messageAction", "LaunchDeepLink"},
                                                       {"mrbw_messageLink", "myapp://x"}}}});
  EXPECT_THAT(witness->seen, ElementsAre("line, rows: 1", "badge, rows: 1", "link, rows: 1"));
}

TEST_F(PushTest, TheTokenIsAUserAttributeUnderThatOperationsRefusals) {
  const std::vector<std::uint8_t> token{0x00, 0x0F, 0xA0, 0xFF};
  const std::pair<std::vector<std::uint8_t>, const char*> cases[] = {{token, "<000fa0ff>"},
                                                                     {{}, "<>"}};
  for (const auto& [bytes, text] : cases) {
    Marbleway::setDeviceToken(bytes);
    EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: User Attribute Set",
                                       row("user_attributes",
                                           std::string("ApplePushToken|") + text + "|Set")));
  }
  Marbleway::setDeviceToken(std::nullopt);
  EXPECT_THAT(outcome(), IsEmpty());
  isValidSession = false;
  Marbleway::setDeviceToken(token);
  EXPECT_THAT(outcome(),
              ElementsAre("Marbleway Warning: No Valid Session, Could Not Set User Attribute"));
}

using LocationTest = MarblewayTest;  // before start-up: location monitoring needs none

TEST_F(LocationTest, AManagerIsSetUpInOrderAndReplacedByTheNext) {
  std::vector<std::string> expected{
      "setDelegate",
      "setDesiredAccuracyBest",
      "setDistanceFilter 100",
      "setAllowsBackgroundLocationUpdates true",
      "setPausesLocationUpdatesAutomatically false",
      "startUpdatingLocation",
      "startMonitoringSignificantLocationChanges",
      "startMonitoring Harbor Office, 1.5, 2.5, 200",
      "startMonitoring Orchard Campus, 3.5, 4.5, 500",
      "startMonitoring Granary Plaza, 3.5, 4.5, 700",
      "startMonitoring Linden House, 5.5, 6.5, 100",
      "isRangingAvailable",
      "startRangingBeacons Bench Beacon 1, 69696969-6969-6969-6969-696969696969, any, any",
      "startRangingBeacons Vendor Beacon, B9407F30-F5F8-466E-AFF9-25556B57FE6D, any, any",
      "startMonitoring beacon.testregion, 86E4BDEA-C6FF-442C-95CB-E6E557A23CF2, 120, 1025"};
  Marbleway::setLocationMonitoringEnabled(false);
  EXPECT_THAT(location->managers(), IsEmpty());
  Marbleway::setLocationMonitoringEnabled(true);
  Marbleway::setLocationMonitoringEnabled(false);  // stops nothing
  EXPECT_EQ(location->managers().back()->calls(), expected);

  location->setRangingAvailable(false);
  std::erase_if(expected, [](const auto& call) { return call.starts_with("startRanging"); });
  Marbleway::setLocationMonitoringEnabled(true);
  EXPECT_THAT(location->managers(), SizeIs(2));
  EXPECT_EQ(location->managers().back()->calls(), expected);
  EXPECT_EQ(mrbwLocationManager.load(), location->managers().back());
}

TEST_F(LocationTest, RegionsAlertAndBeaconsAtExactlyMinus28) {
  Marbleway::setLocationMonitoringEnabled(true);
  auto& manager = *location->managers().back();
  auto& delegate = *manager.delegate();
  delegate.didUpdateLocations(manager, {{1, 2}});
  delegate.didEnterRegion(manager, {"Granary Plaza"});
  delegate.didExitRegion(manager, {"Linden House"});
  std::vector<Beacon> beacons{{"near, major:1", 1, 1, -28}, {"no such word", 2, 2, -28}};
  for (const int rssi : {-40, -29, -27, 0, 28}) beacons.push_back({"major:3", 3, 3, rssi});
  delegate.didRangeBeacons(manager, beacons, {});
  EXPECT_THAT(interface->alerts(),
              ElementsAre(ShownAlert{"Entered Region", "Granary Plaza", "OK"},
                          ShownAlert{"Exited Region", "Linden House", "OK"},
                          ShownAlert{"Entered Beacon Region", "near, major:1", "OK"},
                          ShownAlert{"Entered Beacon Region", "no such word", "OK"}));
}

}  // namespace
}  // namespace marbleway::testing
