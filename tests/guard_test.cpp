#include <array>
#include <functional>
#include <stdexcept>

#include "Marbleway/core/guards.h"
#include "Marbleway/session/crash.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Calls = std::vector<std::function<void()>>;

// clang-format off
const Dictionary kAd{{"adID", "1"}, {"adName", "a"}, {"adType", "t"}, {"adCategory", "c"}, {"orgID", "2"}, {"orgName", "o"}};
const Dictionary kSale{{"conversionType", "sale"}, {"conversionValue", 5}};
const Dictionary kPush{{"aps", Dictionary{{"mrbw_data", true}, {"mrbw_messageID", "m"}}}};

// An operation behind a guard, called with what it accepts. What each of `kConditions` does when it
// fails: R refuses, S starts a session, - is not looked at.
const struct Operation {
  const char* name;
  std::string_view conditions, action, done;
  std::function<void()> call;
} kOperations[] = {
    {"linkUser", "RRRR-", "Link User", "User Linked", [] { Marbleway::linkUser("u", "id"); }},
    {"setUserAttribute", "RRRR-", "Set User Attribute", "User Attribute Set", [] { Marbleway::setUserAttribute("a", "v"); }},
    {"incrementUserAttribute", "RRRR-", "Increment User Attribute", "User Attribute Set", [] { Marbleway::incrementUserAttribute("a", 1); }},
    {"decrementUserAttribute", "RRRR-", "Increment User Attribute", "User Attribute Set", [] { Marbleway::decrementUserAttribute("a", 1); }},
    {"linkCompany", "RRRR-", "Link Company", "Company Linked", [] { Marbleway::linkCompany("c"); }},
    {"setCompanyAttribute", "RRRR-", "Link Company", "Company Attribute Set", [] { Marbleway::setCompanyAttribute("a", "v"); }},
    {"incrementCompanyAttribute", "RRRR-", "Link Company", "Company Attribute Set", [] { Marbleway::incrementCompanyAttribute("a", 1); }},
    {"decrementCompanyAttribute", "RRRR-", "Link Company", "Company Attribute Set", [] { Marbleway::decrementCompanyAttribute("a", 1); }},
    {"trackEvent", "RRS--", "Track Event", "Event Tracked", [] { Marbleway::trackEvent("e"); }},
    {"trackEvent with attributes", "RRS--", "Track Event", "Event Tracked", [] { Marbleway::trackEvent("e", {{"a", 1}}); }},
    {"trackScreenView", "RRS--", "Track Screen View", "Screen View Tracked", [] { Marbleway::trackScreenView("s"); }},
    {"trackScreenView with attributes", "RRS--", "Track Screen View", "Screen View Tracked", [] { Marbleway::trackScreenView("s", {{"a", 1}}); }},
    {"trackAdImpression", "RRR--", "Track Impression", "Impression Tracked", [] { Marbleway::trackAdImpression(kAd); }},
    {"trackAdInteraction", "RRR--", "Track Interaction", "Interaction Tracked", [] { Marbleway::trackAdInteraction(kAd, "tap"); }},
    {"trackAdConversion", "RRR--", "Track Conversion", "Impression Tracked", [] { Marbleway::trackAdConversion(kAd, kSale); }},
    {"logError", "RRR--", "Track Exception", "Error Tracked", [] { Marbleway::logError("n", "m", ErrorReport{}); }},
    {"logError of an exception", "RRR--", "Track Exception", "Error Tracked", [] { Marbleway::logError("n", "m", std::runtime_error("r")); }},
    {"uncaughtExceptionHandler", "RRR-R", "Track Crash", "Crash Tracked", [] { uncaughtExceptionHandler({"d", "s"}); }},
};

const struct Condition {
  std::string_view reason;
  std::atomic<bool>& flag;
  bool failing;
} kConditions[] = {
    {"SDK Not Properly Configured", isSDKValid, false},
    {"Tracking is Not Enabled", isTrackingEnabled, false},
    {"No Valid Session", isValidSession, false},
    {"Privacy Mode Enabled", isPrivacyMode, true},
    {"Performance Monitoring Not Enabled ", isPerformanceMonitoringEnabled, false},  // the blank belongs to the line
};

const Calls kCallsThatKeepNoSessionAlive{
    [] { Marbleway::linkUser("u", "phone"); }, [] { Marbleway::linkUser("", "id"); }, [] { Marbleway::linkUser("u", "email"); },
    [] { Marbleway::setUserAttribute("", "v"); }, [] { Marbleway::setUserAttribute("Company", "v"); }, [] { Marbleway::setUserAttribute("Phone", "v"); },
    [] { Marbleway::incrementUserAttribute("", 1); }, [] { Marbleway::linkCompany(""); }, [] { Marbleway::setCompanyAttribute("", "v"); },
    [] { Marbleway::setCompanyAttribute("DomainName", "v"); }, [] { Marbleway::decrementCompanyAttribute("", 1); },
    [] { Marbleway::trackDeepLink("app://x?mrbw_dlid=1"); }, [] { Marbleway::trackPushNotification(kPush); },
};
const Calls kRefusedCallsThatKeepItAlive{
    [] { Marbleway::trackAdImpression({}); }, [] { Marbleway::trackAdInteraction(kAd, ""); }, [] { Marbleway::trackAdConversion(kAd, {}); },
    [] { Marbleway::logError("n", "m", std::nullopt); },
};
// clang-format on

class GuardTest : public RecordingTest {
 protected:
  // Lets the conditions from `first` to `last` fail and all others hold.
  static void fail(std::size_t first, std::size_t last) {
    for (std::size_t i = 0; i < std::size(kConditions); ++i) {
      kConditions[i].flag = kConditions[i].failing == (i >= first && i <= last);
    }
    SessionTime.store("untouched");
  }

  // The operation writes nothing but its refusal.
  void expectRefusal(const Operation& operation, const Condition& condition) {
    operation.call();
    std::string line("Marbleway Warning: ");
    line.append(condition.reason).append(", Could Not ").append(operation.action);
    EXPECT_THAT(outcome(), ElementsAre(line));
    EXPECT_EQ(SessionTime.load(), "untouched");
  }
};

TEST_F(GuardTest, EachConditionRefusesInItsOwnWordsAndTheFirstOfSeveralIsTold) {
  for (const Operation& operation : kOperations) {
    for (std::size_t i = 0; i < std::size(kConditions); ++i) {
      SCOPED_TRACE(std::string(operation.name).append(": ").append(kConditions[i].reason));
      fail(i, i);
      if (operation.conditions[i] == 'R') {
        expectRefusal(operation, kConditions[i]);
        fail(i, std::size(kConditions) - 1);
        expectRefusal(operation, kConditions[i]);
        continue;
      }
      operation.call();
      // The line and the row; a session that is started writes its own and the user's.
      const auto done = outcome();
      EXPECT_THAT(done, SizeIs(operation.conditions[i] == 'S' ? 4 : 2));
      EXPECT_EQ(done.at(0), std::string("Marbleway Message: ").append(operation.done));
      EXPECT_TRUE(isValidSession);
      // A crash keeps no session alive.
      EXPECT_EQ(SessionTime.load(), operation.conditions[4] == 'R' ? "untouched" : kStart);
    }
  }
}

TEST_F(GuardTest, WithoutLoggingRefusalAndSuccessAreSilentAndOtherwiseTheSame) {
  isLoggingEnabled = false;
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    fail(1, 1);
    operation.call();
    EXPECT_THAT(outcome(), IsEmpty());
    fail(1, 0);
    operation.call();
    EXPECT_THAT(outcome(), SizeIs(1));
  }
}

TEST_F(GuardTest, SuccessIsToldWhetherOrNotTheRowReachedTheDisk) {
  std::filesystem::remove(storePath());
  std::filesystem::create_directory(storePath());
  for (const Operation& operation : kOperations) {
    operation.call();
    EXPECT_THAT(lines(), ElementsAre(std::string("Marbleway Message: ").append(operation.done)));
  }
}

TEST_F(GuardTest, NoOperationLetsAnExceptionOut) {
  struct FailingConsole : platform::Console {
    void writeLine(std::string_view) override { throw std::runtime_error("no console"); }
  };
  platform::install({.console = std::make_shared<FailingConsole>()});
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    operation.call();
    EXPECT_THAT(outcome(), SizeIs(1));
  }
  for (const auto& call : kCallsThatKeepNoSessionAlive) call();
  Marbleway::unlinkCompany();
  Marbleway::unlinkUser();
}

TEST_F(GuardTest, OfTheRefusedCallsOnlyThoseOfAdsAndErrorsKeepTheSessionAlive) {
  for (const bool isPersisted : {false, true}) {
    const Calls& calls = isPersisted ? kRefusedCallsThatKeepItAlive : kCallsThatKeepNoSessionAlive;
    for (std::size_t i = 0; i < calls.size(); ++i) {
      SessionTime.store("untouched");
      calls[i]();
      EXPECT_EQ(SessionTime.load(), isPersisted ? kStart : "untouched") << "call " << i;
    }
  }
}

using BeforeStartUpTest = MarblewayTest;

TEST_F(BeforeStartUpTest, NothingIsRecordedSaidOrMade) {
  for (const Operation& operation : kOperations) operation.call();
  for (const auto& call : kCallsThatKeepNoSessionAlive) call();
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

}  // namespace
}  // namespace marbleway::testing
