#include "Marbleway/session/session.h"
#include "Marbleway/startup/console.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/guard.h"
#include "Marbleway/tracking/operations.h"
#include "Marbleway/tracking/validation.h"

namespace marbleway {
namespace {

void insertAttribute(const Text& attribute, const Text& value, const Text& type) {
  updateSessionTimeout();
  insertRow(
      "insert into mrbw_v2_company_attributes (id, SessionID, AttributeKey, AttributeValue, AttributeType, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?)",
      {sessionID.load(), attribute, value, type, getUTCTimeStamp()});
  console::message("Company Attribute Set");
}

// Increment and decrement: a row of the amount, whose direction is `type`.
void change(const Text& attribute, const Value& value, const Text& type) {
  if (!admits(guards::companyAttribute)) return;
  // Decrement shares the increment's wording.
  if (attribute.isMissing()) {
    return console::warning("No Value Provided, Could Not Increment Company Attribute");
  }
  insertAttribute(attribute, columnText(value), type);
}

}  // namespace

void linkCompany(const Text& companyName) {
  if (!admits(guards::linkCompany)) return;
  if (companyName.isMissing()) return console::error("Company Name is Required");

  updateSessionTimeout();
  insertRow(
      "insert into mrbw_v2_companies (id, SessionID, CompanyName, UTCTimeStamp) VALUES (?, ?, ?, ?)",
      {sessionID.load(), companyName, getUTCTimeStamp()});
  console::message("Company Linked");
}

void unlinkCompany() {
  setUserAttribute("CompanyID", "0");
  console::message("Company Unlinked");  // whatever became of the attribute
}

void setCompanyAttribute(const Text& attribute, const Text& value) {
  if (!admits(guards::companyAttribute)) return;
  if (attribute.isMissing()) {
    return console::warning("No Value Provided, Could Not Set Company Attribute");
  }
  // The two checks of values speak of user attributes.
  if (attribute.view() == "DomainName" && !isWebAddress(value)) {
    return console::warning("URL Invalid, Could Not Set User Attribute");
  }
  if (attribute.view() == "Phone" && !isPhoneNumber(value)) {
    return console::warning("Phone Number Invalid, Could Not Set User Attribute");
  }
  insertAttribute(attribute, value, "Set");
}

void incrementCompanyAttribute(const Text& attribute, const Value& value) {
  change(attribute, value, "Increment");
}

void decrementCompanyAttribute(const Text& attribute, const Value& value) {
  change(attribute, value, "Decrement");
}

}  // namespace marbleway
