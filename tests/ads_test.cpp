#include <cmath>
#include <functional>

#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using ::testing::ElementsAre;

constexpr const char* kKeys[] = {"adID", "adName", "adType", "adCategory", "orgID", "orgName"};

// An ad with the first `count` of its keys.
Dictionary ad(std::size_t count = std::size(kKeys)) {
  Dictionary details;
  for (std::size_t i = 0; i < count; ++i) details.set(kKeys[i], "x");
  return details;
}

const Dictionary kSale{{"conversionType", "sale"}, {"conversionValue", "a lot"}};

using AdsTest = RecordingTest;

// clang-format off
TEST_F(AdsTest, TheAdIsStoredWholeAndAConversionCallsItselfAnImpression) {
  // Empty texts and nulls are there, and further keys come along.
  const Dictionary details{{"orgName", "o"}, {"adID", ""}, {"adName", nullptr}, {"more", Array{1}}, {"adType", "t"}, {"adCategory", 3}, {"orgID", "2"}};
  const std::string json = R"({"orgName":"o","adID":"","adName":null,"more":[1],"adType":"t","adCategory":3,"orgID":"2"})";
  const std::string sale = R"({"conversionType":"sale","conversionValue":"a lot"})";
  Marbleway::trackAdImpression(details);
  EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Impression Tracked", row("ads", "Impression|" + json + "|NULL|NULL")));
  Marbleway::trackAdInteraction(details, "tap");
  EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Interaction Tracked", row("ads", "Interaction|" + json + "|tap|NULL")));
  Marbleway::trackAdInteraction(details, nullptr);  // only an empty type is refused
  EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Interaction Tracked", row("ads", "Interaction|" + json + "|NULL|NULL")));
  Marbleway::trackAdConversion(details, kSale);
  EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Impression Tracked", row("ads", "Conversion|" + json + "|NULL|" + sale)));
}

TEST_F(AdsTest, TheFirstMissingKeyIsToldAndAnInteractionCallsItselfAnImpression) {
  for (std::size_t count = 0; count < std::size(kKeys); ++count) {
    const std::string missing = std::string(" Tracking requires value for '").append(kKeys[count]).append("'");
    Marbleway::trackAdImpression(ad(count));
    Marbleway::trackAdInteraction(ad(count), "tap");
    Marbleway::trackAdConversion(ad(count), kSale);
    EXPECT_THAT(outcome(), ElementsAre("Marbleway Error: Impression" + missing, "Marbleway Error: Impression" + missing, "Marbleway Error: Conversion" + missing));
  }
}

TEST_F(AdsTest, AnEmptyInteractionTypeIsToldBeforeTheKeysAndConversionDetailsAfterThem) {
  const struct {
    std::function<void()> call;
    const char* error;
  } cases[] = {
      {[] { Marbleway::trackAdInteraction({}, ""); }, "Marbleway Error: Interaction Tracking requires value for 'interactionType'"},
      {[] { Marbleway::trackAdInteraction({}, nullptr); }, "Marbleway Error: Impression Tracking requires value for 'adID'"},
      {[] { Marbleway::trackAdConversion(ad(5), {}); }, "Marbleway Error: Conversion Tracking requires value for 'orgName'"},
      {[] { Marbleway::trackAdConversion(ad(), {}); }, "Marbleway Error: Conversion Tracking requires value for 'conversionType'"},
      {[] { Marbleway::trackAdConversion(ad(), {{"conversionType", ""}}); }, "Marbleway Error: Conversion Tracking requires value for 'conversionValue'"},
  };
  for (const auto& [call, error] : cases) {
    call();
    EXPECT_THAT(outcome(), ElementsAre(error));
  }
}
// clang-format on

TEST_F(AdsTest, DetailsThatJSONCannotHoldLeaveTheirColumnEmpty) {
  Dictionary details = ad();
  details.set("price", std::nan(""));
  Marbleway::trackAdConversion(details, {{"conversionType", 1}, {"conversionValue", -INFINITY}});
  EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Impression Tracked",
                                     row("ads", "Conversion|NULL|NULL|NULL")));
}

}  // namespace
}  // namespace marbleway::testing
