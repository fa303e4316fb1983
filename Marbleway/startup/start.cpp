#include "Marbleway/startup/start.h"

#include "Marbleway/session/session.h"
#include "Marbleway/startup/console.h"
#include "Marbleway/startup/handshake.h"
#include "Marbleway/startup/options.h"
#include "Marbleway/startup/pending.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/validation.h"
#include "Marbleway/upload/batch.h"
#include "platform/fork.h"
#include "platform/platform.h"

namespace marbleway {
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
  renewValidation();
  releaseStoresInChild();
}

}  // namespace

void initMarbleway(const Text& projectToken, const Dictionary& options) {
  platform::watchForks(leaveToParent, settle, releaseStores);

  const std::string identifier = platform::current()->device->newIdentifier();
  sessionID.store(identifier);
  SessionStartTime.store(getUTCTimeStamp());
  isValidSession = true;
  isSDKValid = true;
  keepSession(identifier);
  internalProjectToken.store(projectToken.copy());
  initMarblewayDB();
  initMarblewayHTTPDB();
  purgeOldRows();
  readOptions(options);
  batchData();
  console::message("Starting Marbleway SDK");
  launchHandshake();
}

}  // namespace marbleway
