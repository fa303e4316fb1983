#include <algorithm>
#include <iterator>

#include "Marbleway/session/session.h"
#include "Marbleway/startup/console.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/guard.h"
#include "Marbleway/tracking/operations.h"
#include "Marbleway/tracking/validation.h"
#include "platform/platform.h"

namespace marbleway {
namespace {

// A kind of identifier: how it is checked, whether it outlives the process.
struct IdentifierType {
  std::string_view name;
  std::string_view required;               // the error when there is no identifier
  bool (*isValid)(const Text&) = nullptr;  // null: anything will do
  std::string_view invalid = {};
  bool isKept = true;
};

constexpr IdentifierType kIdentifierTypes[] = {
    {.name = "id", .required = "id is Required"},
    {.name = "generic_id", .required = "id is Required"},
    {.name = "email",
     .required = "Email Address is Required",
     .isValid = isLinkEmail,
     .invalid = "Not a Valid Email Address",
     .isKept = false},
};

// An attribute whose value is checked, and the reason that refuses it.
struct CheckedAttribute {
  std::string_view name;
  bool (*isValid)(const Text&);
  std::string_view reason;
};

constexpr CheckedAttribute kCheckedAttributes[] = {
    {"EmailAddress", isAttributeEmail, "Email Address Invalid"},
    {"Website", isWebAddress, "URL Invalid"},
    {"Phone", isPhoneNumber, "Phone Number Invalid"},
};

void keepUser(const Text& identifier) {
  const auto defaults = platform::current()->userDefaults;
  defaults->setText("Marbleway_UserID", identifier.view());
  defaults->synchronize();
}

void insertAttribute(const Text& attribute, const Text& value, const Text& type) {
  insertRow(
      "insert into mrbw_v2_user_attributes (id, SessionID, AttributeKey, AttributeValue, AttributeType, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?)",
      {sessionID.load(), attribute, value, type, getUTCTimeStamp()});
  console::message("User Attribute Set");
}

// Increment and decrement: a row of the amount, whose direction is `type`.
void change(const Guard& guard, const Text& attribute, const Value& value, const Text& type) {
  if (!admits(guard)) return;
  if (attribute.isMissing()) return console::refusal("No Value Provided", guard.action);

  updateSessionTimeout();
  insertAttribute(attribute, columnText(value), type);
}

}  // namespace

void linkUser(const Text& userIdentifier, const Text& identifierType) {
  if (!admits(guards::linkUser)) return;
  const auto* type = std::find_if(
      std::begin(kIdentifierTypes), std::end(kIdentifierTypes),
      [&](const IdentifierType& known) { return known.name == identifierType.view(); });
  if (type == std::end(kIdentifierTypes)) return;  // an unknown type is ignored in silence
  if (userIdentifier.isMissing()) return console::error(type->required);
  if (type->isValid != nullptr && !type->isValid(userIdentifier)) {
    return console::error(type->invalid);
  }

  updateSessionTimeout();
  const std::string timeStamp = getUTCTimeStamp();
  if (type->isKept) keepUser(userIdentifier);
  insertRow(
      "insert into mrbw_v2_users (id, SessionID, UserID, TypeID, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
      {sessionID.load(), userIdentifier, identifierType, timeStamp});
  console::message("User Linked");
}

void unlinkUser() {
  const auto defaults = platform::current()->userDefaults;
  defaults->remove("Marbleway_UserID");
  defaults->synchronize();
  stopSession();
}

void setUserAttribute(const Text& attribute, const Text& value) {
  if (!admits(guards::setUserAttribute)) return;
  const auto refuse = [](std::string_view reason) {
    console::refusal(reason, guards::setUserAttribute.action);
  };
  // It is the name that is asked for here, whatever the words say.
  if (attribute.isMissing()) return refuse("No Value Provided");
  for (const CheckedAttribute& checked : kCheckedAttributes) {
    if (attribute.view() == checked.name && !checked.isValid(value)) return refuse(checked.reason);
  }
  // A user's company is recorded by linkCompany alone; here it is ignored in silence.
  if (attribute.view() == "Company") return;

  updateSessionTimeout();
  insertAttribute(attribute, value, "Set");
}

void incrementUserAttribute(const Text& attribute, const Value& value) {
  change(guards::incrementUserAttribute, attribute, value, "Increment");
}

void decrementUserAttribute(const Text& attribute, const Value& value) {
  change(guards::decrementUserAttribute, attribute, value, "Decrement");
}

}  // namespace marbleway
