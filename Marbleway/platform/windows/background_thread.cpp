#include "Marbleway/platform/background_thread.h"

#include <windows.h>

#include <utility>

namespace marbleway::platform {

std::thread startBackgroundThread(std::function<void()> body) {
  return std::thread(std::move(body));
}

void pinModule() {
  HMODULE module = nullptr;
  (void)GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                           reinterpret_cast<const wchar_t*>(&pinModule), &module);
}

}  // namespace marbleway::platform
