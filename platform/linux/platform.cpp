#include "platform/platform.h"

#include "platform/linux/crash_hook.h"
#include "platform/linux/http_client.h"
#include "platform/linux/main_loop.h"
#include "platform/linux/services.h"

namespace marbleway::platform {

Platform makePlatform() {
  return {
      .console = makeStandardError(),
      .clock = makeSystemClock(),
      .mainLoop = makeAsioLoop(),
      .httpClient = makeCurlClient(),
      .userDefaults = makeFileDefaults(),
      .device = makeLinuxDevice(),
      .statusBar = makeNoStatusBar(),
      .userInterface = makeHeadlessInterface(),
      .locationService = makeNoLocation(),
      .networkCapture = makeNoCapture(),
      .crashHook = makeCrashHook(),
  };
}

}  // namespace marbleway::platform
