#include <atomic>
#include <stdexcept>
#include <thread>

#include "Marbleway/session/connection_type.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using platform::View;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

View viewOf(std::string className, std::vector<View> subviews = {}, std::string text = "",
            int number = 0) {
  return {std::move(className), std::move(subviews), std::move(text), number, nullptr, nullptr};
}

// A bar of the older kind with these views in its foreground.
View olderBar(std::vector<View> views) {
  View bar = viewOf("UIStatusBar");
  bar.foregroundView = std::make_shared<const View>(viewOf("Foreground", std::move(views)));
  return bar;
}

// A bar of the modern kind: a bar in a bar, whose foreground has groups of views. In `groups` a
// "|" begins the next group, "w" is a wifi signal, "c" a cellular one, any other word a text.
View modernBar(const std::vector<std::string>& groups) {
  std::vector<View> views{viewOf("Group")};
  for (const std::string& word : groups) {
    if (word == "|") {
      views.push_back(viewOf("Group"));
    } else {
      views.back().subviews.push_back(word == "w"   ? viewOf("_UIStatusBarWifiSignalView")
                                      : word == "c" ? viewOf("_UIStatusBarCellularSignalView")
                                                    : viewOf("_UIStatusBarStringView", {}, word));
    }
  }
  View bar = viewOf("UIStatusBar_Modern");
  bar.statusBar = std::make_shared<const View>(olderBar(std::move(views)));
  return bar;
}

TEST(ConnectionTypeTest, ModernBarIsReadGroupByGroup) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{}, "None"},
      {{"12:00", "w"}, "Wifi"},
      {{"c", "LTE"}, "LTE"},
      {{"c", "2G"}, "2G"},
      {{"3G"}, "None"},               // without a signal
      {{"3G", "c"}, "None"},          // before its signal
      {{"c", "|", "4G"}, "4G"},       // a signal in an earlier group counts
      {{"c", "5G", "LTE+"}, "None"},  // no exact match
      {{"c", "3G", "12"}, "3G"},      // other texts change nothing
      {{"c", "3G", "4G"}, "4G"},      // the last match counts
      {{"c", "w", "3G"}, "Wifi"},     // wifi ends its group
      {{"c", "w", "|", "3G"}, "3G"},  // and no other one
  };
  for (const auto& [groups, expected] : cases) {
    const View bar = modernBar(groups);
    EXPECT_EQ(connectionType(&bar), expected) << ::testing::PrintToString(groups);
  }
}

TEST(ConnectionTypeTest, OlderBarShowsItsFirstItemsNumber) {
  const auto item = [](int number) {
    return viewOf("UIStatusBarDataNetworkItemView", {}, "", number);
  };
  int number = -1;
  for (const char* expected : {"None", "None", "2G", "3G", "4G", "LTE", "Wifi", "None"}) {
    const View bar = olderBar({viewOf("Clock", {item(1)}), item(number), item(1)});
    EXPECT_EQ(connectionType(&bar), expected) << number;
    ++number;
  }
  EXPECT_EQ(connectionType(nullptr), "None");
  for (const View& bar : {viewOf("UIStatusBar"), viewOf("UIStatusBar_Modern"), olderBar({})}) {
    EXPECT_EQ(connectionType(&bar), "None");
  }
}

struct WifiBar : platform::StatusBar {
  std::shared_ptr<const View> view() override {
    return std::make_shared<const View>(modernBar({"w"}));
  }
};

class SessionTest : public MarblewayTest {};

TEST_F(SessionTest, RowHasTheStatusBarsConnection) {
  platform::install({.statusBar = std::make_shared<WifiBar>()});
  beginSession();
  EXPECT_THAT(query(storePath(), "SELECT ConnectionType FROM mrbw_v2_sessions"),
              ElementsAre("Wifi"));
}

// The server's timeout is 0, and the loop's thread expires the session amid the calls of this one.
TEST_F(SessionTest, RowsCarryTheSessionOfTheirAdmission) {
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
  for (const char* table : {"mrbw_v2_events", "mrbw_v2_screen_views", "mrbw_v2_companies"}) {
    EXPECT_THAT(query(storePath(), std::string("SELECT id FROM ") + table +
                                       " WHERE SessionID IS NULL OR SessionID NOT IN "
                                       "(SELECT SessionID FROM mrbw_v2_sessions)"),
                IsEmpty());
  }
}

struct Failing : platform::Console,
                 platform::Clock,
                 platform::StatusBar,
                 platform::HttpClient,
                 platform::testing::MemoryDefaults {
  [[noreturn]] static void fail() { throw std::runtime_error("no service"); }
  void writeLine(std::string_view) override { fail(); }
  std::chrono::system_clock::time_point now() override { fail(); }
  std::shared_ptr<const View> view() override { fail(); }
  void post(platform::HttpRequest, platform::testing::HeldHttp::Done) override { fail(); }
  void setText(std::string_view, std::string_view) override { fail(); }
  void remove(std::string_view) override { fail(); }
};

TEST_F(SessionTest, StartUpRunsEveryStepDespiteAThrowingService) {
  const auto none = std::make_shared<Failing>();
  for (const platform::Platform& services :
       {platform::Platform{.userDefaults = none}, {.console = none}, {.clock = none}}) {
    TemporaryDirectory documents;
    configure({.documentsDirectory = documents.path()});
    platform::install({.console = console, .clock = time, .userDefaults = defaults});
    platform::install(services);
    sessionID.store(std::nullopt);
    isSDKValid = isValidSession = isConnectedToInternet = false;
    apiURL.store(std::nullopt);
    const auto before = http->requests().size();
    Marbleway::initMarbleway("token");
    EXPECT_TRUE(sessionID.load() && isValidSession && isSDKValid);
    EXPECT_TRUE(std::filesystem::exists(documents.path() / DBFileName));
    EXPECT_TRUE(std::filesystem::exists(documents.path() / HTTPDBFileName));
    EXPECT_EQ(apiURL.load(), "https://collect.marbleway.invalid/v2/");
    EXPECT_THAT(http->requests(), SizeIs(before + 1));
  }
}

TEST_F(SessionTest, NoOperationLetsAnExceptionOut) {
  beginSession();
  const auto none = std::make_shared<Failing>();
  platform::install({.console = none, .httpClient = none, .userDefaults = none, .statusBar = none});
  isValidSession = false;
  Marbleway::linkCompany("refused");
  Marbleway::trackEvent("e");
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
}

}  // namespace
}  // namespace marbleway::testing
