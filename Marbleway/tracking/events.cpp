#include "Marbleway/session/session.h"
#include "Marbleway/startup/console.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/guard.h"
#include "Marbleway/tracking/operations.h"
#include "Marbleway/tracking/validation.h"
#include "platform/json.h"

namespace marbleway {
namespace {

// The words in which events and screen views differ.
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

// Only warns: the attributes are stored as they are. A value that is no number draws the line once
// for each of the two spellings.
void checkNumbers(const Dictionary& attributes) {
  for (const std::string_view key : {"Value", "value"}) {
    const Value* value = attributes.find(key);
    if (value != nullptr && !isNumber(*value)) console::error("Not a Valid Number");
  }
}

void track(const Kind& kind, const Text& name, const Dictionary* attributes) {
  if (!admits(kind.guard)) return;
  if (attributes != nullptr) checkNumbers(*attributes);

  updateSessionTimeout();
  const OptionalText details = attributes != nullptr ? json::toJSON(*attributes) : std::nullopt;
  insertRow(kind.insert, {sessionID.load(), name, details, getUTCTimeStamp()});
  console::message(kind.tracked);
}

}  // namespace

void trackEvent(const Text& eventName, const Dictionary* attributes) {
  track(kEvent, eventName, attributes);
}

void trackScreenView(const Text& screenName, const Dictionary* attributes) {
  track(kScreenView, screenName, attributes);
}

}  // namespace marbleway
