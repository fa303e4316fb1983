#include "Marbleway/platform/background_thread.h"

#include <windows.h>

#include <utility>

#include "Marbleway/platform/windows/crash_hook.h"

namespace marbleway::platform {

std::thread startBackgroundThread(std::function<void()> body) {
  return std::thread([body = std::move(body)] {
    guaranteeStack();
    body();
  });
}

void pinModule() {
  HMODULE module = nullptr;
  (void)GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                           reinterpret_cast<const wchar_t*>(&pinModule), &module);
}

}  // namespace marbleway::platform
