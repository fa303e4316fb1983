#include "Marbleway/session/crash.h"

#include "Marbleway/startup/console.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/guard.h"
#include "platform/quietly.h"

namespace marbleway {
namespace {

void trackCrash(const platform::Failure& failure) {
  if (!admits(guards::trackCrash)) return;

  insertRow(
      "insert into mrbw_v2_crashes (id, SessionID, CrashDetails, StackTrace, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
      {sessionID.load(), failure.description, failure.callStack, getUTCTimeStamp()});
  console::message("Crash Tracked");
}

}  // namespace

void uncaughtExceptionHandler(const platform::Failure& failure) {
  quietly([&] { trackCrash(failure); });
}

}  // namespace marbleway
