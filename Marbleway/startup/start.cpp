#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/pending.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/session/crash.h"
#include "Marbleway/session/session.h"
#include "Marbleway/startup/handshake.h"
#include "Marbleway/startup/options.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/validation.h"
#include "Marbleway/upload/batch.h"
#include "Marbleway/upload/dispatch.h"

using namespace marbleway;

namespace {

// Nothing is half made when a fork happens: its child would wait for who makes it.
void settle() {
  Pending::settle();
  settleValidation();
  holdStores();
}

// A child of a fork has none of the library's threads. It may record; it sends nothing before a
// start-up of its own, and its timers are those that it starts itself.
void leaveToParent() {
  isConnectedToInternet = false;
  for (TimerHandle* task : {&TimerTask, &SessionTask}) task->store(nullptr);
  Pending::forget();
  BatchSlot::reset();
  renewValidation();
  releaseStoresInChild();
}

}  // namespace

void Marbleway::initMarbleway(Text projectToken) noexcept {
  operation([&] { initMarbleway(projectToken, defaultOptions()); });
}

// Each step catches its own exceptions, so that a step that fails skips no other.
void Marbleway::initMarbleway(Text projectToken, const Dictionary& options) noexcept {
  platform::watchForks(leaveToParent, settle, releaseStores);
  operation([] { SessionStartTime.store(getUTCTimeStamp()); });
  operation([] { beginSession(); });
  isSDKValid = true;
  operation([&] { internalProjectToken.store(projectToken.copy()); });
  operation([] { createStores(); });
  operation([] { purgeOldRows(); });
  operation([&] { readOptions(options); });
  operation([] { recordEarlierCrashes(); });
  operation([] { batchData(); });
  operation([] { console::message("Starting Marbleway SDK"); });
  operation([] { launchHandshake(); });
}
