#include "Marbleway/session/crash.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>

#include "Marbleway/core/console.h"
#include "Marbleway/core/diagnostics.h"
#include "Marbleway/core/guards.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"

namespace marbleway {
namespace {

// The two latest identifiers: one is read while the other is written.
constinit platform::ForkSafeMutex crashSessionMutex;
constinit std::array<std::array<char, 64>, 2> crashSessions{};
constinit std::atomic<std::size_t> latestSession{0};

const char* sessionOfCrash() {
  return isMet(guards::trackCrash) ? crashSessions[latestSession].data() : nullptr;
}

bool hasRow(const std::string& session, const std::string& time) {
  Statement statement(pathOf(Store::event),
                      "SELECT id FROM mrbw_v2_crashes WHERE SessionID = ? AND UTCTimeStamp = ?");
  statement.bind(1, session);
  statement.bind(2, time);
  return statement.step();
}

enum class Time { atCrash, atStartUp };

void trackCrash(const platform::Failure& failure, Time now) {
  const auto session = failure.sessionID ? failure.sessionID : admittedSession(guards::trackCrash);
  if (!session) return;

  const std::string time = failure.time ? timeStampOf(*failure.time) : getUTCTimeStamp();
  // A process may end after the row's commit and before its record is marked.
  if (failure.onRecorded && hasRow(*session, time)) return failure.onRecorded();
  insertRow(
      "insert into mrbw_v2_crashes (id, SessionID, CrashDetails, StackTrace, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
      {session, failure.description, failure.callStack, time});
  // Without its row, a record stays for the next start-up.
  const bool isRecorded = !failure.onRecorded || hasRow(*session, time);
  if (isRecorded && failure.onRecorded) failure.onRecorded();
  if (isRecorded || now == Time::atCrash) console::message("Crash Tracked");
  if (!diagnostics::areOn()) return;
  diagnostics::report({.kind = Diagnostic::Kind::crash,
                       .isFailure = !isRecorded,
                       .outcome = isRecorded ? "recorded" : "not recorded"});
}

}  // namespace

void uncaughtExceptionHandler(const platform::Failure& failure) {
  catchAll([&] { trackCrash(failure, Time::atCrash); });
}

void recordEarlierCrashes() {
  platform::current()->crashHook->useRecords(
      platform::documentsDirectory(), sessionOfCrash, [](const platform::Failure& failure) {
        catchAll([&] { trackCrash(failure, Time::atStartUp); });
      });
}

void setCrashSession(const std::string& identifier) {
  const std::scoped_lock lock(crashSessionMutex);
  auto& next = crashSessions[1 - latestSession];
  next.fill('\0');
  if (identifier.size() < next.size()) identifier.copy(next.data(), identifier.size());
  latestSession = 1 - latestSession;
}

}  // namespace marbleway
