#include <algorithm>
#include <iterator>
#include <string>

#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/diagnostics.h"
#include "Marbleway/core/guards.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/session/session.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/validation.h"

using namespace marbleway;

namespace {

// A type of identifier: how it is checked, and whether it is persisted.
struct IdentifierType {
  std::string_view name;
  std::string_view required;               // the error when there is no identifier
  bool (*isValid)(const Text&) = nullptr;  // null: any identifier is valid
  std::string_view invalid = {};
  bool isPersisted = true;
};

constexpr IdentifierType kIdentifierTypes[] = {
    {.name = "id", .required = "id is Required"},
    {.name = "generic_id", .required = "id is Required"},
    {.name = "email",
     .required = "Email Address is Required",
     .isValid = isLinkEmail,
     .invalid = "Not a Valid Email Address",
     .isPersisted = false},
};

void persistUser(const Text& identifier) {
  catchAll([&] {
    const auto defaults = platform::current()->userDefaults;
    defaults->setText("Marbleway_UserID", identifier.view());
    defaults->synchronize();
  });
}

}  // namespace

void Marbleway::linkUser(Text userIdentifier, Text identifierType) noexcept {
  operation(guards::linkUser, identifierType, [&] {
    const auto session = admittedSession(guards::linkUser);
    if (!session) return;
    const auto* type =
        std::ranges::find(kIdentifierTypes, identifierType.view(), &IdentifierType::name);
    // An unknown type writes no line.
    if (type == std::end(kIdentifierTypes)) return diagnostics::refused("unknown identifier type");
    if (userIdentifier.isMissing()) return console::error(type->required);
    if (type->isValid != nullptr && !type->isValid(userIdentifier)) {
      return console::error(type->invalid);
    }

    updateSessionTimeout();
    const std::string timeStamp = getUTCTimeStamp();
    if (type->isPersisted) persistUser(userIdentifier);
    insertRow(
        "insert into mrbw_v2_users (id, SessionID, UserID, TypeID, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
        {session, userIdentifier, identifierType, timeStamp});
    console::message("User Linked");
  });
}

void Marbleway::unlinkUser() noexcept {
  operation([] {
    catchAll([] {
      const auto defaults = platform::current()->userDefaults;
      defaults->remove("Marbleway_UserID");
      defaults->synchronize();
    });
    stopSession();
  });
}
