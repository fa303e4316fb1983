#include <chrono>

#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

constexpr const char* kUserLinked = "Marbleway Message: User Linked";
constexpr const char* kSet = "Marbleway Message: User Attribute Set";
constexpr const char* kCompanySet = "Marbleway Message: Company Attribute Set";

using UsersTest = RecordingTest;
using CompaniesTest = RecordingTest;

// clang-format off
TEST_F(UsersTest, IdentifiersOfThreeTypesAreLinkedAndTwoOfThemKept) {
  const struct {
    Text type, identifier;
    std::vector<std::string> outcome;
    std::optional<std::string> kept = std::nullopt;
  } cases[] = {
      {"id", "u-1", {kUserLinked, row("users", "u-1|id")}, "u-1"},
      {"generic_id", "g", {kUserLinked, row("users", "g|generic_id")}, "g"},
      {"email", "a@b.org", {kUserLinked, row("users", "a@b.org|email")}},
      {"id", "caf\xE9", {kUserLinked, row("users", "caf\xEF\xBF\xBD|id")}, "caf\xE9"},
      {"id", "", {"Marbleway Error: id is Required"}},
      {"email", nullptr, {"Marbleway Error: Email Address is Required"}},
      {"email", "", {"Marbleway Error: Email Address is Required"}},
      // An unknown type is ignored in silence, before anything else is looked at.
      {"phone", "u", {}}, {"Email", "a@b.org", {}}, {"ID", "", {}}, {"", "u", {}}, {nullptr, nullptr, {}},
  };
  // clang-format on
  for (const auto& [type, identifier, expected, kept] : cases) {
    SCOPED_TRACE(std::string(type.view()).append(": ").append(identifier.view()));
    defaults->remove("Marbleway_UserID");
    const int synchronizations = defaults->synchronizations();
    Marbleway::linkUser(identifier, type);
    EXPECT_THAT(outcome(), ElementsAreArray(expected));
    EXPECT_EQ(defaults->text("Marbleway_UserID"), kept);
    EXPECT_EQ(defaults->synchronizations() - synchronizations, kept ? 1 : 0);
  }
}

TEST_F(UsersTest, UnlinkingForgetsTheUserAndEndsTheSessionWhateverTheState) {
  Marbleway::linkUser("u", "id");
  outcome();
  isSDKValid = isTrackingEnabled = false;
  isPrivacyMode = true;
  const int synchronizations = defaults->synchronizations();
  Marbleway::unlinkUser();
  EXPECT_EQ(defaults->synchronizations() - synchronizations, 2);  // the user's and the session's
  EXPECT_THAT(defaults->content(), IsEmpty());
  EXPECT_FALSE(isValidSession);
  EXPECT_EQ(sessionID.load(), std::nullopt);
  EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Session Stopped"));
}

// clang-format off
const std::vector<Text> kAddresses{"a@b.org", "A.b_c%d+e-f@x-y.example.travel", "1@2.ab"};
const std::vector<Text> kNoAddresses{"a@b", "a@b.c", "@b.org", "a b@c.org", "to a@b.org", "a@b.org\n", "a@b_c.org", "a@b.o1g", "a@\xFF.org"};
const std::vector<Text> kWebAddresses{"http://example.org", "https://a-b_c.example.org/x/y_z/", "http://host/",
    "http://a|b"};  // "|" is one of the pattern's own characters
const std::vector<Text> kNoWebAddresses{"http://host", "example.org", "ftp://example.org", "HTTP://example.org", "http://example.org?q=1", "see http://example.org", "http://ex\xFFmple.org", "", nullptr,
    "http://a.b-c.org"};  // hyphens and letters mix before the first point or slash only
const std::vector<Text> kPhones{"+12345678901", "1234567890", "12", "123456789012345"};
const std::vector<Text> kNoPhones{"1234567890123456", "+1", "0123456789", "12-34", "1234567890\n", "", nullptr};

// An operation that checks its value, and what becomes of each.
const struct Check {
  void (*record)(Text value);
  const char *table, *before, *after, *accepted, *refused;
  const std::vector<Text>&good, &bad;
} kChecks[] = {
    {[](Text value) { Marbleway::linkUser(value, "email"); }, "users", "", "|email", kUserLinked, "Error: Not a Valid Email Address", kAddresses, kNoAddresses},
    {[](Text value) { Marbleway::setUserAttribute("EmailAddress", value); }, "user_attributes", "EmailAddress|", "|Set", kSet, "Warning: Email Address Invalid, Could Not Set User Attribute", kAddresses, kNoAddresses},
    {[](Text value) { Marbleway::setUserAttribute("Website", value); }, "user_attributes", "Website|", "|Set", kSet, "Warning: URL Invalid, Could Not Set User Attribute", kWebAddresses, kNoWebAddresses},
    {[](Text value) { Marbleway::setUserAttribute("Phone", value); }, "user_attributes", "Phone|", "|Set", kSet, "Warning: Phone Number Invalid, Could Not Set User Attribute", kPhones, kNoPhones},
    // Companies are refused in the words of users.
    {[](Text value) { Marbleway::setCompanyAttribute("DomainName", value); }, "company_attributes", "DomainName|", "|Set", kCompanySet, "Warning: URL Invalid, Could Not Set User Attribute", kWebAddresses, kNoWebAddresses},
    {[](Text value) { Marbleway::setCompanyAttribute("Phone", value); }, "company_attributes", "Phone|", "|Set", kCompanySet, "Warning: Phone Number Invalid, Could Not Set User Attribute", kPhones, kNoPhones},
};
// clang-format on

TEST_F(UsersTest, CheckedValuesMatchAsAWholeAndCompaniesAreRefusedInTheWordsOfUsers) {
  for (const Check& check : kChecks) {
    for (const Text& value : check.good) {
      check.record(value);
      const std::string columns = std::string(check.before).append(value.view());
      EXPECT_THAT(outcome(), ElementsAre(check.accepted, row(check.table, columns + check.after)));
    }
    for (const Text& value : check.bad) {
      check.record(value);
      EXPECT_THAT(outcome(), ElementsAre(std::string("Marbleway ") + check.refused))
          << value.view();
    }
  }
}

TEST_F(UsersTest, AnAddressWithA16LetterEndingCanBeLinkedButNotSetAsAnAttribute) {
  for (const std::size_t letters : {2U, 14U, 15U, 16U, 17U}) {
    SCOPED_TRACE(letters);
    const std::string address = "a@b." + std::string(letters, 'x');
    Marbleway::linkUser(address, "email");
    EXPECT_EQ(outcome()[0] == kUserLinked, letters <= 16);
    Marbleway::setUserAttribute("EmailAddress", address);
    EXPECT_EQ(outcome()[0] == kSet, letters <= 14);
  }
}

TEST_F(UsersTest, AMegabyteIsCheckedInTimeThatGrowsWithItsLengthAlone) {
  const std::string letters(1 << 20, 'a'), digits(1 << 20, '1');
  const std::string address = "http://" + letters + "." + letters;
  const auto start = std::chrono::steady_clock::now();
  Marbleway::setUserAttribute("Website", address + "!");
  Marbleway::setUserAttribute("Website", "http://" + digits + "." + digits + "!");
  Marbleway::setUserAttribute("EmailAddress", letters + "@" + letters + ".");
  Marbleway::setUserAttribute("Phone", digits);
  Marbleway::linkUser(letters + "@" + letters, "email");
  Marbleway::setUserAttribute("Website", address);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_TRUE(outcome().back() == row("user_attributes", "Website|" + address + "|Set"));
}

TEST_F(UsersTest, AmountsAreRecordedAsTextWithTheirDirectionAndNeverAddedUp) {
  // clang-format off
  const std::pair<Value, std::string> cases[] = {
      {5, "5"}, {-2.5, "-2.5"}, {1e300, "1e+300"}, {"ten", "ten"}, {true, "1"}, {"", ""}, {nullptr, "NULL"},
      {Array{1, "a"}, R"([1,"a"])"}, {Dictionary{{"a", nullptr}}, R"({"a":null})"}};
  // clang-format on
  for (const auto& [value, text] : cases) {
    Marbleway::incrementUserAttribute("Company", value);  // no name is checked here
    Marbleway::decrementUserAttribute("Company", value);
    Marbleway::incrementCompanyAttribute("Company", value);
    Marbleway::decrementCompanyAttribute("Company", value);
    const std::string up = "Company|" + text + "|Increment";
    const std::string down = "Company|" + text + "|Decrement";
    EXPECT_THAT(outcome(),
                ElementsAre(kSet, kSet, kCompanySet, kCompanySet, row("user_attributes", up),
                            row("user_attributes", down), row("company_attributes", up),
                            row("company_attributes", down)));
  }
}

TEST_F(UsersTest, OtherAttributesAreStoredUncheckedAndAUsersCompanyIsIgnoredInSilence) {
  const std::pair<Text, std::string> cases[] = {
      {"", "|Set"}, {nullptr, "NULL|Set"}, {"x", "x|Set"}};
  for (const auto& [value, text] : cases) {
    Marbleway::setUserAttribute("Company", value);
    EXPECT_THAT(outcome(), IsEmpty());
    Marbleway::setUserAttribute("emailaddress", value);
    EXPECT_THAT(outcome(), ElementsAre(kSet, row("user_attributes", "emailaddress|" + text)));
    // Names that mean something for users mean nothing for companies.
    for (std::string name : {"Website", "EmailAddress", "Company"}) {
      Marbleway::setCompanyAttribute(name, value);
      EXPECT_THAT(outcome(), ElementsAre(kCompanySet,
                                         row("company_attributes", name.append("|").append(text))));
    }
  }
}

TEST_F(UsersTest, NoValueProvidedMeansNoNameAndDecrementSpeaksOfIncrement) {
  const std::string none = "Marbleway Warning: No Value Provided, Could Not ";
  for (const Text& name : {Text(""), Text(nullptr)}) {
    Marbleway::setUserAttribute(name, "v");
    Marbleway::incrementUserAttribute(name, 1);
    Marbleway::decrementUserAttribute(name, 1);
    Marbleway::setCompanyAttribute(name, "v");
    Marbleway::incrementCompanyAttribute(name, 1);
    Marbleway::decrementCompanyAttribute(name, 1);
    EXPECT_THAT(
        outcome(),
        ElementsAre(none + "Set User Attribute", none + "Increment User Attribute",
                    none + "Increment User Attribute", none + "Set Company Attribute",
                    none + "Increment Company Attribute", none + "Increment Company Attribute"));
  }
}

TEST_F(CompaniesTest, ACompanyIsLinkedByName) {
  Marbleway::linkCompany("Acme & S\xC3\xB6hne");
  EXPECT_THAT(outcome(), ElementsAre("Marbleway Message: Company Linked",
                                     row("companies", "Acme & S\xC3\xB6hne")));
  for (const Text& name : {Text(""), Text(nullptr)}) {
    Marbleway::linkCompany(name);
    EXPECT_THAT(outcome(), ElementsAre("Marbleway Error: Company Name is Required"));
  }
}

TEST_F(CompaniesTest, UnlinkingIsAUserAttributeAndSaysUnlinkedEvenWhenThatIsRefused) {
  Marbleway::unlinkCompany();
  EXPECT_THAT(outcome(), ElementsAre(kSet, "Marbleway Message: Company Unlinked",
                                     row("user_attributes", "CompanyID|0|Set")));
  isTrackingEnabled = false;
  Marbleway::unlinkCompany();
  const auto refused = "Marbleway Warning: Tracking is Not Enabled, Could Not Set User Attribute";
  EXPECT_THAT(outcome(), ElementsAre(refused, "Marbleway Message: Company Unlinked"));
}

}  // namespace
}  // namespace marbleway::testing
