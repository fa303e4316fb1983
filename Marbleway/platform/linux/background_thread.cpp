#include "Marbleway/platform/background_thread.h"

#include <dlfcn.h>
#include <link.h>

#include <atomic>
#include <string_view>
#include <utility>

#include "Marbleway/platform/linux/alternate_stack.h"
#include "Marbleway/platform/linux/signals_blocked.h"

namespace marbleway::platform {
std::thread startBackgroundThread(std::function<void()> body) {
  const SignalsBlocked blocked;  // a thread inherits the mask of the one that starts it
  return std::thread([body = std::move(body)] {
    giveAlternateStack();
    body();
  });
}

void pinModule() {
  static constinit std::atomic<bool> isPinned{false};
  Dl_info symbol{};
  link_map* module = nullptr;
  if (isPinned.exchange(true) || dladdr1(reinterpret_cast<void*>(&pinModule), &symbol,
                                         reinterpret_cast<void**>(&module), RTLD_DL_LINKMAP) == 0) {
    return;
  }
  const std::string_view name = module->l_name;
  if (name.empty()) return;  // the program itself
  void* handle = dlopen(module->l_name, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
  if (handle != nullptr) dlclose(handle);
}

}  // namespace marbleway::platform
