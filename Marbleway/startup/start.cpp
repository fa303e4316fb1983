#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/pending.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/busy_budget.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/session/crash.h"
#include "Marbleway/session/session.h"
#include "Marbleway/session/timers.h"
#include "Marbleway/startup/handshake.h"
#include "Marbleway/startup/options.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/upload/batch.h"
#include "Marbleway/upload/dispatch.h"

using namespace marbleway;

namespace marbleway {

// The state is reset twice: before, so that operations are refused and work in progress has no
// effect; and after, for the task that the main loop was running.
void shutdown() noexcept {
  operation([] {
    invalidateTimers();
    resetState();
    Pending::reset();
    BatchSlot::reset();
    platform::endThreads();
    unregisterStores();
    catchAll([] { platform::current()->crashHook->uninstall(); });
    invalidateTimers();
    resetState();
  });
}

}  // namespace marbleway

namespace {

// The library is as before its first start-up. The parent's handles are not destroyed: what they
// refer to belongs to threads of the parent.
void resetAfterFork() {
  for (TimerHandle* task : {&TimerTask, &SessionTask}) platform::abandon(task->exchange(nullptr));
  platform::abandon(mrbwLocationManager.exchange(nullptr));
  resetState();
  Pending::reset();
  BatchSlot::reset();
}

}  // namespace

void Marbleway::initMarbleway(Text projectToken) noexcept {
  operation([&] { initMarbleway(projectToken, defaultOptions()); });
}

// Each step catches its own exceptions, so that a step that fails skips no other.
void Marbleway::initMarbleway(Text projectToken, const Dictionary& options) noexcept {
  if (!platform::startRecording()) return;
  platform::resetInChild([] { operation(resetAfterFork); });
  const BusyBudget budget;  // shared by all steps
  operation([] { beginSession(); });
  operation([] { SessionStartTime.store(getUTCTimeStamp()); });
  isSDKValid = true;
  operation([] { persistSession(); });
  operation([&] { internalProjectToken.store(projectToken.copy()); });
  operation([] { createStores(); });
  operation([] { purgeOldRows(); });
  operation([&] { readOptions(options); });
  operation([] { recordEarlierCrashes(); });
  operation([] { batchData(); });
  operation([] { console::message("Starting Marbleway SDK"); });
  operation([] { launchHandshake(); });
}
