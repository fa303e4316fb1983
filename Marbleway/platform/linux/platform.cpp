#include "Marbleway/platform/platform.h"

#include "Marbleway/platform/background_loop.h"
#include "Marbleway/platform/linux/crash_hook.h"
#include "Marbleway/platform/linux/http_client.h"
#include "Marbleway/platform/services.h"

namespace marbleway::platform {

Platform makePlatform() {
  return {
      .console = makeStandardError(),
      .clock = makeSystemClock(),
      .mainLoop = makeBackgroundLoop(),
      .httpClient = makeCurlClient(),
      .userDefaults = makeFileDefaults(),
      .device = makeDevice(),
      .statusBar = makeNoStatusBar(),
      .userInterface = makeHeadlessInterface(),
      .locationService = makeNoLocation(),
      .networkCapture = makeNoCapture(),
      .crashHook = makeCrashHook(),
  };
}

}  // namespace marbleway::platform
