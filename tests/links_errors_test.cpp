#include <cmath>
#include <stdexcept>

#include "Marbleway/session/crash.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {

// What an application throws.
struct ImportFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

using LinksTest = RecordingTest;
using ErrorsTest = RecordingTest;

constexpr const char* kErrorTracked = "Marbleway Message: Error Tracked";

TEST_F(LinksTest, TheQuerysLastIdentifierIsRecordedDecoded) {
  const std::string bad = "\xEF\xBF\xBD";
  const struct {
    Text url;
    std::optional<std::string> identifier;
  } cases[] = {
      {"app://open?mrbw_dlid=spring%20sale&x=1", "spring sale"},
      {"https://example.org/a/b?x=1&mrbw_dlid=a+b#top", "a b"},
      {"?mrbw_dlid=a%2Bb%26c", "a+b&c"},
      {"?mrbw_dlid=caf%c3%A9", "caf\xC3\xA9"},
      {"?mrbw_dlid=1&mrbw_dlid=2", "2"},
      {"?mrbw_dlid=", ""},
      {"?mrbw_dlid=a=b=c", "a"},        // what follows a second "=" is dropped
      {"?mrbw_dlid=1&mrbw_dlid", "1"},  // a piece without "=" is skipped
      {"?mrbw_dlid", std::nullopt},
      {"?mrbw%5Fdlid=1", std::nullopt},  // keys are not decoded
      {"?MRBW_DLID=1&xmrbw_dlid=2&mrbw_dlid =3", std::nullopt},
      {"?mrbw_dlid=1&mrbw_dlid=%FF", std::nullopt},  // what cannot be decoded removes the key
      {"?mrbw_dlid=%FF&mrbw_dlid=1", "1"},
      {"?mrbw_dlid=100%", std::nullopt},
      {"?mrbw_dlid=%2&x=0", std::nullopt},
      {"?mrbw_dlid=%+1", std::nullopt},
      {"?mrbw_dlid=raw\xFF", "raw" + bad},
      {"?mrbw_dlid=a%00b", "a"},
      {"?mrbw_dlid=1#mrbw_dlid=2", "1"},
      {"app://open#x?mrbw_dlid=2", std::nullopt},
      {"app://open?a?mrbw_dlid=1", std::nullopt},
      {nullptr, std::nullopt},
  };
  for (const auto& [url, identifier] : cases) {
    SCOPED_TRACE(url.view());
    Marbleway::trackDeepLink(url);
    if (identifier) {
      EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Deep Link Tracked",
                                         row("deep_links", *identifier + "|iOS")));
    } else {
      EXPECT_THAT(outcome(), IsEmpty());
    }
  }
}

TEST_F(LinksTest, NothingRefusesALinkAndWithoutASessionItHasNone) {
  Marbleway::stopSession();
  isSDKValid = isTrackingEnabled = false;
  isPrivacyMode = true;
  lines();
  Marbleway::trackDeepLink("app://x?mrbw_dlid=1");
  EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Deep Link Tracked",
                                     std::string("deep_links|NULL|1|iOS|") + kStart));
  EXPECT_FALSE(isValidSession);
}

TEST_F(ErrorsTest, AReportIsStoredInFixedOrderWithoutWhatIsAbsent) {
  const ErrorReport full{.name = "N",
                         .reason = "R",
                         .callStackReturnAddresses = {{1, 0x7fff00000000}},
                         .callStackSymbols = {{"0 main", "1 start"}},
                         .userInfo = Dictionary{{"z", 1}, {"a", Array{}}}};
  ErrorReport partial, unwritable;
  partial.reason = "";
  partial.callStackSymbols.emplace();
  unwritable.userInfo = {{"n", std::nan("")}};
  const std::pair<ErrorReport, const char*> cases[] = {
      {full,
       R"({"ExceptionName":"N","ExceptionReason":"R","ExceptionCallStackReturnAddresses":[1,140733193388032],"ExceptionCallStackSymbols":["0 main","1 start"],"ExceptionUserInfo":{"z":1,"a":[]}})"},
      {partial, R"({"ExceptionReason":"","ExceptionCallStackSymbols":[]})"},
      {{}, "{}"},
      {unwritable, "NULL"},
  };
  for (const auto& [report, details] : cases) {
    Marbleway::logError("Import", nullptr, report);
    EXPECT_THAT(outcome(),
                ElementsAre(kErrorTracked, row("errors", std::string("Import|NULL|") + details)));
  }
}

TEST_F(ErrorsTest, WithoutAnExceptionNothingIsRecordedAndTheLineSaysItIs) {
  Marbleway::logError("Import", "failed", std::nullopt);
  EXPECT_THAT(outcome(), ElementsAre(kErrorTracked));
}

TEST_F(ErrorsTest, ACaughtExceptionIsRecordedWithItsTypeItsReasonAndTheCallStack) {
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
  const auto& symbols = *fields.find("ExceptionCallStackSymbols")->as<Array>();
  EXPECT_FALSE(addresses.empty());
  EXPECT_EQ(addresses.size(), symbols.size());
  EXPECT_EQ(fields.find("ExceptionUserInfo"), nullptr);
}

TEST_F(ErrorsTest, AnExceptionWithoutAReasonIsRecordedWithoutOne) {
  struct Speechless : std::exception {
    const char* what() const noexcept override { return nullptr; }
  };
  Marbleway::logError("n", "m", Speechless());
  EXPECT_THAT(outcome(), ElementsAre(kErrorTracked, Not(HasSubstr("ExceptionReason"))));
}

TEST_F(ErrorsTest, ACrashIsOneRowWithBothTextsAsTheyStandAndNoUpload) {
  uncaughtExceptionHandler({.description = "Type: reason \xFF", .callStack = "0 main\n1 start"});
  EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Crash Tracked",
                                     row("crashes", "Type: reason \xEF\xBF\xBD|0 main\n1 start")));
  EXPECT_THAT(http->requests(), SizeIs(1));  // the handshake
}

using SwitchesTest = RecordingTest;

TEST_F(SwitchesTest, ASwitchActsFromTheNextCallAndSaysNothing) {
  for (const bool isOn : {false, true}) {
    Marbleway::setTrackingEnabled(isOn);
    EXPECT_EQ(Marbleway::getTrackingEnabled(), isOn);
    Marbleway::trackEvent("e");
    EXPECT_THAT(
        lines(),
        ElementsAre(isOn ? "Marbleway Message: Event Tracked"
                         : "Marbleway Warning: Tracking is Not Enabled, Could Not Track Event"));
  }
  for (const bool isOn : {false, true}) {
    Marbleway::setUploadingEnabled(isOn);
    EXPECT_EQ(Marbleway::getUploadingEnabled(), isOn);
    time->advance(std::chrono::seconds(30));
    EXPECT_THAT(http->requests(), SizeIs(isOn ? 2 : 1));  // the handshake before
  }
  EXPECT_THAT(lines(), IsEmpty());
}

}  // namespace
}  // namespace marbleway::testing
