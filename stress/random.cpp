// Random operations, and a model of the rows that they make.

#include <rapidjson/document.h>

#include <map>
#include <random>
#include <stdexcept>

#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"

namespace marbleway::tests {
namespace {

using Counts = std::map<std::string, std::size_t, std::less<>>;  // rows by array

// Reads a batch document by another reader than the library's.
Counts countsOf(const std::string& text) {
  rapidjson::Document document;
  document.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
  EXPECT_FALSE(document.HasParseError());
  Counts counts;
  // NOLINTNEXTLINE(clang-diagnostic-ambiguous-reversed-operator): iterators older than C++20
  for (const auto& array : document["BatchData"].GetObject()) {
    if (!array.value.Empty()) counts[array.name.GetString()] = array.value.Size();
  }
  return counts;
}

struct Operation {
  std::string array;  // of the row that it makes; "": none
  bool needsSession;  // and tracking
  void (*run)(const std::string& text, const Dictionary& any);
};

// clang-format off
const Operation kOperations[] = {
    {"Events", true, [](const auto& text, const auto& any) { Marbleway::trackEvent(text, any); }},
    {"ScreenViews", true, [](const auto& text, const auto& any) { Marbleway::trackScreenView(text, any); }},
    {"Errors", true, [](const auto& text, const auto&) { Marbleway::logError(text, text, std::runtime_error(text)); }},
    {"", true, [](const auto&, const auto& any) { Marbleway::trackAdImpression(any); }},
    {"Users", true, [](const auto& text, const auto&) { Marbleway::linkUser(text, "id"); }},
    {"", true, [](const auto& text, const auto&) { Marbleway::linkUser(text, "email"); }},
    {"UserAttributes", true, [](const auto& text, const auto& any) { Marbleway::incrementUserAttribute(text, any); }},
    {"CompanyAttributes", true, [](const auto& text, const auto&) { Marbleway::setCompanyAttribute(text, text); }},
    {"DeepLinks", false, [](const auto&, const auto&) { Marbleway::trackDeepLink("app://open?a=b&mrbw_dlid=%41+b#c"); }},
    {"", false, [](const auto&, const auto& any) { Marbleway::trackPushNotification({{"aps", any}}); }},
};
// clang-format on

class RandomTest : public testing::RecordingTest {
 protected:
  std::size_t below(std::size_t bound) { return random_() % bound; }
  // Any bytes but NUL, which would end it; most texts are no UTF-8.
  std::string anyText() {
    std::string text(1 + below(below(50) == 0 ? 5000 : 30), ' ');
    for (char& byte : text) byte = static_cast<char>(1 + below(255));
    return text;
  }
  void expectSession() {
    hasSession_ = true;
    ++rows_["Sessions"], ++rows_["Users"];
  }
  void operate() {
    const auto& [array, needsSession, run] = kOperations[below(std::size(kOperations))];
    run(anyText(), {{anyText(), Array{anyText(), nullptr}}, {"Value", below(1000)}});
    if (needsSession && !isTrackingEnabled) return;
    if (!hasSession_ && (array == "Events" || array == "ScreenViews")) expectSession();
    if (!array.empty() && (hasSession_ || !needsSession)) ++rows_[array];
  }
  // Sends what there is, unless it is switched off; the server accepts it or not.
  void upload(void (*work)()) {
    const bool isSent = hasSession_ && isTrackingEnabled && isUploadingEnabled && !rows_.empty();
    work();
    hasSession_ = hasSession_ && work == batchData;
    ASSERT_EQ(http->waiting(), isSent ? 1 : 0);
    if (!isSent) return;
    EXPECT_EQ(countsOf(http->requests().back().body), rows_);
    const bool isAccepted = below(2) == 0;
    answer(isAccepted ? 200 : 500);
    if (isAccepted) rows_.clear();
  }
  void control(std::size_t choice) {
    if (choice == 0) Marbleway::setTrackingEnabled(below(6) != 0);
    if (choice == 1) Marbleway::setUploadingEnabled(below(6) != 0);
    if (choice == 2) Marbleway::startSession();
    if (choice == 2 && isTrackingEnabled) expectSession();
    if (choice == 3) upload(Marbleway::unlinkUser);
    if (choice == 4) upload(Marbleway::stopSession);
    if (choice >= 5) upload(batchData);
  }

 private:
  std::minstd_rand random_{
      static_cast<unsigned>(::testing::UnitTest::GetInstance()->random_seed())};
  bool hasSession_ = true;
  Counts rows_;
};

TEST_F(RandomTest, RandomOperationsLeaveTheRowsOfTheirModel) {
  for (int i = 0; i < 5000 && !HasFailure(); ++i) below(6) > 0 ? operate() : control(below(8));
}

}  // namespace
}  // namespace marbleway::tests
