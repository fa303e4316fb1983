#include "Marbleway/platform/platform.h"

#include "Marbleway/platform/background_loop.h"
#include "Marbleway/platform/services.h"
#include "Marbleway/platform/windows/crash_hook.h"
#include "Marbleway/platform/windows/http_client.h"
#include "Marbleway/platform/windows/user_interface.h"

namespace marbleway::platform {

Platform makePlatform() {
  return {
      .console = makeStandardError(),
      .clock = makeSystemClock(),
      .mainLoop = makeBackgroundLoop(),
      .httpClient = makeWinHttpClient(),
      .userDefaults = makeFileDefaults(),
      .device = makeDevice(),
      .statusBar = makeNoStatusBar(),
      .userInterface = makeWindowsInterface(),
      .locationService = makeNoLocation(),
      .networkCapture = makeNoCapture(),
      .crashHook = makeCrashHook(),
  };
}

}  // namespace marbleway::platform
