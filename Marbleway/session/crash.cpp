#include "Marbleway/session/crash.h"

#include "Marbleway/core/console.h"
#include "Marbleway/core/guards.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"

namespace marbleway {
namespace {

void trackCrash(const platform::Failure& failure) {
  const auto session = admittedSession(guards::trackCrash);
  if (!session) return;

  insertRow(
      "insert into mrbw_v2_crashes (id, SessionID, CrashDetails, StackTrace, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
      {session, failure.description, failure.callStack, getUTCTimeStamp()});
  console::message("Crash Tracked");
}

}  // namespace

void uncaughtExceptionHandler(const platform::Failure& failure) {
  catchAll([&] { trackCrash(failure); });
}

}  // namespace marbleway
