#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/guards.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/session/session.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"

using namespace marbleway;

void Marbleway::linkCompany(Text companyName) noexcept {
  operation(guards::linkCompany, nullptr, [&] {
    const auto session = admittedSession(guards::linkCompany);
    if (!session) return;
    if (companyName.isMissing()) return console::error("Company Name is Required");

    updateSessionTimeout();
    insertRow(
        "insert into mrbw_v2_companies (id, SessionID, CompanyName, UTCTimeStamp) VALUES (?, ?, ?, ?)",
        {session, companyName, getUTCTimeStamp()});
    console::message("Company Linked");
  });
}

void Marbleway::unlinkCompany() noexcept {
  operation([] {
    setUserAttribute("CompanyID", "0");
    console::message("Company Unlinked");  // after a refusal too
  });
}
