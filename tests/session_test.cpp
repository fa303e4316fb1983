#include "Marbleway/session/session.h"

#include <cmath>
#include <limits>

#include "Marbleway/session/connection_type.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using platform::View;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kExpired = "Marbleway Message: Session Expired";
constexpr const char* kStopped = "Marbleway Message: Session Stopped";

class SessionTest : public MarblewayTest {
 protected:
  std::size_t sessionRows() const { return rows("mrbw_v2_sessions").size(); }
  // How many of the requests so far were batches.
  std::size_t batches() const {
    const auto all = http->requests();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [](const auto& request) {
      return request.url.ends_with("mobile/batch");
    }));
  }
};

class ShownBar : public platform::StatusBar {
 public:
  explicit ShownBar(View view) : view_(std::make_shared<const View>(std::move(view))) {}
  std::shared_ptr<const View> view() override { return view_; }

 private:
  std::shared_ptr<const View> view_;
};

class CountingHook : public platform::CrashHook {
 public:
  void install(void (*)(const platform::Failure&)) override { ++installed; }
  int installed = 0;
};

View viewOf(std::string className, std::vector<View> subviews = {}, std::string text = "",
            int number = 0) {
  return {std::move(className), std::move(subviews), std::move(text), number, nullptr, nullptr};
}

View itemOf(int number) { return viewOf("UIStatusBarDataNetworkItemView", {}, "", number); }

// A bar of the older kind with these views in its foreground.
View olderBar(std::vector<View> views) {
  View bar = viewOf("UIStatusBar");
  bar.foregroundView = std::make_shared<const View>(viewOf("Foreground", std::move(views)));
  return bar;
}

// A bar of the modern kind: a bar in a bar, whose foreground has groups of views.
View modernBar(std::vector<std::vector<View>> groups) {
  std::vector<View> views;
  views.reserve(groups.size());
  for (auto& group : groups) views.push_back(viewOf("Group", std::move(group)));
  View bar = viewOf("UIStatusBar_Modern");
  bar.statusBar = std::make_shared<const View>(olderBar(std::move(views)));
  return bar;
}

TEST_F(SessionTest, NothingHappensWithoutAConfiguredSDKOrWithTrackingOff) {
  Marbleway::startSession();
  Marbleway::initMarbleway("token", {{"TrackingEnabled", false}});
  lines();
  answer(200);
  isTrackingEnabled = true;
  isSDKValid = false;
  Marbleway::startSession();
  EXPECT_EQ(rowCount(), 0);
  EXPECT_EQ(time->mainLoop()->nextDue(), std::nullopt);  // no timer
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_EQ(SessionTime.load(), std::nullopt);
}

TEST_F(SessionTest, ASessionRowBearsItsStartAndAUserRowTheTimeOfTheCall) {
  const std::string advertiser = "BBBBBBBB-0000-0000-0000-000000000001";
  const struct {
    const char* config;
    bool isPrivate;
    std::string advertising;
  } cases[] = {
      {R"({})", false, ""},
      {R"({"AdvertisingID":true})", false, advertiser},
      {R"({"PrivacyMode":true})", true, ""},
      {R"({"PrivacyMode":true,"AdvertisingID":true})", true, ""},
  };
  platform::Platform shown;
  shown.statusBar = std::make_shared<ShownBar>(olderBar({itemOf(5)}));
  platform::install(shown);
  for (const auto& [config, isPrivate, advertising] : cases) {
    SCOPED_TRACE(config);
    Marbleway::initMarbleway("token", {{"UploadingEnabled", false}});
    const std::string session = *sessionID.load(), start = *SessionStartTime.load();
    time->advance(5s);
    answer(200, std::string(R"({"Data":{"Config":)").append(config).append("}}"));
    const std::string vendor = isPrivate ? defaults->text("Marbleway_GenericDeviceID").value_or("")
                                         : "AAAAAAAA-0000-0000-0000-000000000001";
    const auto joined = [](std::initializer_list<std::string> columns) {
      std::string row;
      for (const std::string& column : columns) row.append(row.empty() ? "" : "|").append(column);
      return row;
    };
    EXPECT_EQ(rows("mrbw_v2_sessions").back(),
              joined({session, advertising, "token", "org.example.app", vendor, "Apple", "x86_64",
                      "iOS", "12.5", "3.1", "Unknown", "Wifi", "Europe/Berlin",
                      isPrivate ? "Yes" : "No", "2.2.0", start}));
    EXPECT_EQ(rows("mrbw_v2_users").back(),
              joined({session, "user1244566", "id", *SessionTime.load()}));
    EXPECT_NE(SessionTime.load(), start);
    EXPECT_EQ(sessionID.load(), session);
    Marbleway::stopSession();
  }
  EXPECT_THAT(lines(), SizeIs(8));  // a start and a stop each, nothing of the session's beginning
}

TEST_F(SessionTest, GenericIdentifiersAreMadeOnceAndKept) {
  for (const auto& [random, user] :
       {std::pair(0U, "user9999"), std::pair(499990001U, "user500000000")}) {
    device->setFacts({.randomNumber = random});
    defaults->remove("Marbleway_UserID");
    Marbleway::initMarbleway("token");
    failRequest();
    EXPECT_EQ(defaults->text("Marbleway_UserID"), user);
  }
  device->setFacts({.randomNumber = 7});
  isPrivacyMode = true;
  Marbleway::startSession();
  const auto made = defaults->text("Marbleway_GenericDeviceID");
  Marbleway::stopSession();
  Marbleway::startSession();
  EXPECT_EQ(defaults->text("Marbleway_GenericDeviceID"), made);
  EXPECT_EQ(defaults->text("Marbleway_UserID"), "user500000000");
}

TEST_F(SessionTest, StartingAgainAddsRowsAndAfterAStopANewSession) {
  beginSession();
  time->advance(1s);
  Marbleway::startSession();
  EXPECT_EQ(sessionID.load(), kFirstSession);
  EXPECT_EQ(SessionStartTime.load(), kStart);
  EXPECT_EQ(sessionRows(), 2U);
  EXPECT_THAT(rows("mrbw_v2_users"), SizeIs(2));

  Marbleway::stopSession();
  EXPECT_EQ(sessionID.load(), std::nullopt);
  EXPECT_FALSE(isValidSession);
  EXPECT_EQ(SessionStartTime.load(), kStart);
  // What identifies user and device stays.
  EXPECT_THAT(defaults->content(), ElementsAre(::testing::Key("Marbleway_UserID")));

  Marbleway::startSession();
  const auto second = sessionID.load();
  EXPECT_NE(second, kFirstSession);
  EXPECT_EQ(SessionStartTime.load(), "2026-01-02 00:00:01.000");
  EXPECT_EQ(defaults->text("Marbleway_SharedSessionID"), second);
  EXPECT_EQ(defaults->content().count("Marbleway_isValidSession"), 1U);
  EXPECT_TRUE(isValidSession);
}

TEST_F(SessionTest, StopsInEveryStateAndUploadsOnce) {
  Marbleway::stopSession();  // before start-up, where nothing is logged
  EXPECT_THAT(lines(), IsEmpty());
  beginSession();
  Marbleway::stopSession();
  EXPECT_THAT(lines(), ElementsAre(kStopped));
  EXPECT_EQ(batches(), 1U);
  Marbleway::stopSession();
  EXPECT_THAT(lines(), ElementsAre(kStopped));
  EXPECT_EQ(batches(), 1U);  // the batch asks for a session
  EXPECT_EQ(time->mainLoop()->nextDue(), std::nullopt);
}

TEST_F(SessionTest, ExpiresAtTheCheckThatFindsItIdleForTheWholeTimeout) {
  const std::pair<std::chrono::seconds, std::chrono::seconds> cases[] = {
      {0s, 60s},   // 60 is not less than 60
      {1s, 120s},  // 59 s idle at the first check, 119 s at the second
      {59s, 120s},
  };
  for (const auto& [activity, end] : cases) {
    SCOPED_TRACE(activity.count());
    Marbleway::initMarbleway("token", {{"SessionTimeout", 60}});
    failRequest();
    time->advance(activity);
    Marbleway::trackEvent("activity");
    lines();
    time->advance(end - activity - 1ms);
    EXPECT_THAT(lines(), IsEmpty());
    time->advance(1ms);
    EXPECT_THAT(lines(), ElementsAre(kExpired, kStopped));
  }
}

TEST_F(SessionTest, UploadsAtEachDispatchTimeUntilItStops) {
  Marbleway::initMarbleway("token", {{"DispatchTime", 45}});
  answer(200, R"({"Data":{"Config":{"SessionTimeout":100}}})");
  lines();
  time->advance(44999ms);
  EXPECT_EQ(batches(), 0U);
  time->advance(1ms);
  EXPECT_EQ(batches(), 1U);
  time->advance(55s);  // expiry at 100 s comes after the dispatch at 90 s and uploads once more
  EXPECT_THAT(lines(), ElementsAre(kExpired, kStopped));
  EXPECT_EQ(batches(), 3U);
  time->advance(1h);
  EXPECT_EQ(batches(), 3U);
  EXPECT_THAT(lines(), IsEmpty());
  Marbleway::trackEvent("reopens");
  time->advance(45s);
  EXPECT_EQ(batches(), 4U);
}

// A second start forgets the timers of the first one, which go on even after the stop.
TEST_F(SessionTest, ReplacedTimersGoOnButNeitherUploadNorRecordAfterTheStop) {
  beginSession();
  time->advance(10s);
  Marbleway::startSession();
  time->advance(30s);
  EXPECT_EQ(batches(), 2U);  // one of each timer
  Marbleway::stopSession();
  EXPECT_EQ(batches(), 3U);
  lines();
  const int count = rowCount();
  time->advance(561s);
  EXPECT_EQ(batches(), 3U);
  EXPECT_EQ(rowCount(), count);
  EXPECT_THAT(lines(), ElementsAre(kExpired, kStopped));  // of the replaced expiry timer, at 600 s
}

TEST_F(SessionTest, OddPeriodsNeitherSpinNorOverflow) {
  constexpr float kInfinite = std::numeric_limits<float>::infinity();
  const std::pair<bool, std::vector<float>> cases[] = {
      {true, {0, -0.0F, -5, -kInfinite, std::nanf(""), 1e-30F}},  // as often as can be
      {false, {1e9F, 9.2e9F, 1e30F, kInfinite}},                  // never
  };
  beginSession();
  for (const auto& [fires, periods] : cases) {
    for (const float period : periods) {
      SCOPED_TRACE(period);
      Marbleway::stopSession();
      while (http->fail()) continue;
      time = std::make_shared<platform::testing::FakeTime>();  // without the replaced timers
      platform::Platform fresh;
      fresh.clock = time;
      fresh.mainLoop = time->mainLoop();
      platform::install(fresh);

      const std::size_t before = batches();
      DispatchTime = period;
      SessionTimeout = 300;
      Marbleway::startSession();
      time->advance(300ms);
      // No period is 100 ms; a tiny one brings the four batches that may be in flight.
      EXPECT_EQ(batches() - before, !fires ? 0U : period > 0 ? 4U : 3U);
      SessionTimeout = period;
      Marbleway::startSession();
      time->advance(300ms);
      EXPECT_EQ(isValidSession, !fires);
    }
  }
}

TEST_F(SessionTest, IdlenessGoesByTheWallClockAndPeriodsDoNot) {
  beginSession();
  time->setWallClock(time->now() - 24h * 365);
  time->advance(301s);
  EXPECT_THAT(lines(), IsEmpty());  // checked, and not idle for that clock
  EXPECT_TRUE(isValidSession);
  SessionTime.store("no time");
  time->advance(300s);
  EXPECT_TRUE(isValidSession);
  updateSessionTimeout();
  time->setWallClock(time->now() + 24h * 365);
  time->advance(300s);
  EXPECT_THAT(lines(), ElementsAre(kExpired, kStopped));
}

TEST_F(SessionTest, CaptureAndTheCrashHookAreStartedOnlyWhereMonitored) {
  for (const bool isMonitored : {false, true}) {
    const auto hook = std::make_shared<CountingHook>();
    platform::Platform hooked;
    hooked.crashHook = hook;
    platform::install(hooked);
    Marbleway::initMarbleway("token");
    isNetworkMonitoringEnabled = isPerformanceMonitoringEnabled = isMonitored;
    failRequest();
    EXPECT_EQ(hook->installed, isMonitored ? 1 : 0);
    Marbleway::stopSession();
  }
  EXPECT_THAT(capture->calls(), ElementsAre("defaultConfiguration", "load", "registerProtocol",
                                            "unregisterProtocol"));
}

TEST_F(SessionTest, ReadsTheConnectionOffTheStatusBar) {
  const auto text = [](const char* shown) { return viewOf("_UIStatusBarStringView", {}, shown); };
  const View wifi = viewOf("_UIStatusBarWifiSignalView");
  const View cellular = viewOf("_UIStatusBarCellularSignalView");
  const struct {
    const char* name;
    View bar;
    const char* expected;
  } cases[] = {
      {"older, no foreground", viewOf("UIStatusBar"), "None"},
      {"older, no item", olderBar({wifi, viewOf("Clock", {itemOf(1)})}), "None"},
      {"older, the first item counts", olderBar({viewOf("Clock"), itemOf(7), itemOf(1)}), "None"},
      {"modern, no bar inside", viewOf("UIStatusBar_Modern"), "None"},
      {"modern, nothing inside", modernBar({}), "None"},
      {"modern, wifi", modernBar({{viewOf("Clock"), wifi}}), "Wifi"},
      {"modern, older item", modernBar({{itemOf(5)}}), "None"},
      {"modern, LTE", modernBar({{cellular, text("LTE")}}), "LTE"},
      {"modern, 2G", modernBar({{cellular, text("2G")}}), "2G"},
      {"modern, text without a signal", modernBar({{text("3G")}}), "None"},
      {"modern, text before its signal", modernBar({{text("3G"), cellular}}), "None"},
      {"modern, signal in an earlier group", modernBar({{cellular}, {text("4G")}}), "4G"},
      {"modern, no exact match", modernBar({{cellular, text("5G"), text("LTE+")}}), "None"},
      {"modern, other texts change nothing", modernBar({{cellular, text("3G"), text("12")}}), "3G"},
      {"modern, the last match counts", modernBar({{cellular, text("3G"), text("4G")}}), "4G"},
      {"modern, wifi ends its group", modernBar({{cellular, wifi, text("3G")}}), "Wifi"},
      {"modern, wifi ends no other group", modernBar({{cellular, wifi}, {text("3G")}}), "3G"},
  };
  for (const auto& [name, bar, expected] : cases) EXPECT_EQ(connectionType(&bar), expected) << name;
  int number = -1;
  for (const char* expected : {"None", "None", "2G", "3G", "4G", "LTE", "Wifi", "None"}) {
    const View bar = olderBar({itemOf(number)});
    EXPECT_EQ(connectionType(&bar), expected) << number;
    ++number;
  }
  EXPECT_EQ(connectionType(nullptr), "None");
}

}  // namespace
}  // namespace marbleway::testing
