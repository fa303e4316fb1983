#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/guards.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/json.h"
#include "Marbleway/session/session.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/validation.h"

using namespace marbleway;

namespace {

// What differs between events and screen views.
struct Kind {
  Guard guard;
  InsertText insert;
  std::string_view tracked;
};

constexpr Kind kEvent{
    guards::trackEvent,
    "insert into mrbw_v2_events (id, SessionID, EventName, EventAttributes, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
    "Event Tracked"};
constexpr Kind kScreenView{
    guards::trackScreenView,
    "insert into mrbw_v2_screen_views (id, SessionID, ScreenName, ScreenAttributes, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
    "Screen View Tracked"};

// The valid session's identifier; without a valid session one is started.
OptionalText currentSession() {
  if (isValidSession) {
    if (auto session = sessionID.load()) return session;
  }
  return openSession();
}

// Logs an error for each of the two keys whose value is no number. The attributes are stored
// unchanged.
void checkNumbers(const Dictionary& attributes) {
  for (const std::string_view key : {"Value", "value"}) {
    const Value* value = attributes.find(key);
    if (value != nullptr && !isNumber(*value)) console::error("Not a Valid Number");
  }
}

// `attributes` is null when the call has none.
void track(const Kind& kind, const Text& name, const Dictionary* attributes) {
  if (!admits(kind.guard)) return;
  const OptionalText session = currentSession();
  if (attributes != nullptr) checkNumbers(*attributes);

  updateSessionTimeout();
  const OptionalText details = attributes != nullptr ? json::toJSON(*attributes) : std::nullopt;
  insertRow(kind.insert, {session, name, details, getUTCTimeStamp()});
  console::message(kind.tracked);
}

}  // namespace

void Marbleway::trackEvent(Text eventName) noexcept {
  operation(kEvent.guard, eventName, [&] { track(kEvent, eventName, nullptr); });
}

void Marbleway::trackEvent(Text eventName, const Dictionary& attributes) noexcept {
  operation(kEvent.guard, eventName, [&] { track(kEvent, eventName, &attributes); });
}

void Marbleway::trackScreenView(Text screenName) noexcept {
  operation(kScreenView.guard, screenName, [&] { track(kScreenView, screenName, nullptr); });
}

void Marbleway::trackScreenView(Text screenName, const Dictionary& attributes) noexcept {
  operation(kScreenView.guard, screenName, [&] { track(kScreenView, screenName, &attributes); });
}
