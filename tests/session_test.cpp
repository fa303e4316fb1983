#include <atomic>
#include <stdexcept>
#include <thread>

#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using SessionTest = MarblewayTest;

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
  std::shared_ptr<const platform::View> view() override { fail(); }
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
