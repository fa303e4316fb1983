#include "Marbleway/core/operation.h"

#include "Marbleway/platform/platform.h"

namespace marbleway {

void watchThread() noexcept {
  isThreadWatched = true;
  catchAll([] { platform::current()->crashHook->watchThread(); });
}

}  // namespace marbleway
