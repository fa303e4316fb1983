#include <algorithm>
#include <iterator>
#include <span>

#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/diagnostics.h"
#include "Marbleway/core/guards.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/session/session.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/validation.h"

using namespace marbleway;

namespace {

// An attribute whose value is checked, and the warning that refuses it.
struct CheckedAttribute {
  std::string_view name;
  bool (*isValid)(const Text&);
  std::string_view warning;
};

constexpr CheckedAttribute kUserChecks[] = {
    {"EmailAddress", isAttributeEmail, "Email Address Invalid, Could Not Set User Attribute"},
    {"Website", isWebAddress, "URL Invalid, Could Not Set User Attribute"},
    {"Phone", isPhoneNumber, "Phone Number Invalid, Could Not Set User Attribute"},
};
// Companies share the warnings of users.
constexpr CheckedAttribute kCompanyChecks[] = {
    {"DomainName", isWebAddress, "URL Invalid, Could Not Set User Attribute"},
    {"Phone", isPhoneNumber, "Phone Number Invalid, Could Not Set User Attribute"},
};

// What differs between the attributes of users and those of companies.
struct Subject {
  Guard setGuard;
  Guard changeGuard;
  std::string_view setNeedsName;     // warns of a missing name, in spite of the wording
  std::string_view changeNeedsName;  // of increment and decrement
  std::span<const CheckedAttribute> checks;
  std::string_view ignoredName;  // setting it does nothing; "": no such name
  InsertText insert;
  std::string_view done;
};

constexpr Subject kUser{
    .setGuard = guards::setUserAttribute,
    .changeGuard = guards::changeUserAttribute,
    .setNeedsName = "No Value Provided, Could Not Set User Attribute",
    .changeNeedsName = "No Value Provided, Could Not Increment User Attribute",
    .checks = kUserChecks,
    .ignoredName = "Company",  // a user's company is recorded by linkCompany alone
    .insert =
        "insert into mrbw_v2_user_attributes (id, SessionID, AttributeKey, AttributeValue, AttributeType, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?)",
    .done = "User Attribute Set"};

constexpr Subject kCompany{
    .setGuard = guards::linkCompany,
    .changeGuard = guards::linkCompany,
    .setNeedsName = "No Value Provided, Could Not Set Company Attribute",
    .changeNeedsName = "No Value Provided, Could Not Increment Company Attribute",
    .checks = kCompanyChecks,
    .ignoredName = "",
    .insert =
        "insert into mrbw_v2_company_attributes (id, SessionID, AttributeKey, AttributeValue, AttributeType, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?)",
    .done = "Company Attribute Set"};

void insertAttribute(const Subject& subject, const std::string& session, const Text& attribute,
                     const Text& value, const Text& type) {
  updateSessionTimeout();
  insertRow(subject.insert, {session, attribute, value, type, getUTCTimeStamp()});
  console::message(subject.done);
}

void set(const Subject& subject, const Text& attribute, const Text& value) {
  const auto session = admittedSession(subject.setGuard);
  if (!session) return;
  if (attribute.isMissing()) return console::warning(subject.setNeedsName);
  const auto check = std::ranges::find(subject.checks, attribute.view(), &CheckedAttribute::name);
  if (check != subject.checks.end() && !check->isValid(value)) {
    return console::warning(check->warning);
  }
  if (attribute.view() == subject.ignoredName) {
    return diagnostics::refused("only linkCompany records the company");
  }

  insertAttribute(subject, *session, attribute, value, "Set");
}

// Increment and decrement: a row with the amount; `type` is the direction.
void change(const Subject& subject, const Text& attribute, const Value& value, const Text& type) {
  const auto session = admittedSession(subject.changeGuard);
  if (!session) return;
  if (attribute.isMissing()) return console::warning(subject.changeNeedsName);

  insertAttribute(subject, *session, attribute, columnText(value), type);
}

}  // namespace

void Marbleway::setUserAttribute(Text attribute, Text value) noexcept {
  operation(kUser.setGuard, attribute, [&] { set(kUser, attribute, value); });
}

void Marbleway::incrementUserAttribute(Text attribute, const Value& value) noexcept {
  operation(kUser.changeGuard, attribute, [&] { change(kUser, attribute, value, "Increment"); });
}

void Marbleway::decrementUserAttribute(Text attribute, const Value& value) noexcept {
  operation(kUser.changeGuard, attribute, [&] { change(kUser, attribute, value, "Decrement"); });
}

void Marbleway::setCompanyAttribute(Text attribute, Text value) noexcept {
  operation(kCompany.setGuard, attribute, [&] { set(kCompany, attribute, value); });
}

void Marbleway::incrementCompanyAttribute(Text attribute, const Value& value) noexcept {
  operation(kCompany.changeGuard, attribute,
            [&] { change(kCompany, attribute, value, "Increment"); });
}

void Marbleway::decrementCompanyAttribute(Text attribute, const Value& value) noexcept {
  operation(kCompany.changeGuard, attribute,
            [&] { change(kCompany, attribute, value, "Decrement"); });
}
