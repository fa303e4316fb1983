#include "desktop/receiver.h"

#include <utility>

#include "Marbleway/platform/platform.h"

namespace marbleway::desktop {

void Receiver::report(Event event) const {
  if (isGone()) return;
  platform::current()->mainLoop->post([receiver = manager_, event = std::move(event)] {
    const auto manager = receiver.lock();
    auto* const delegate = manager ? manager->delegate() : nullptr;
    if (delegate != nullptr) event(*manager, *delegate);
  });
}

void Receiver::reportCrossing(const platform::Region& region, bool isInside) const {
  report([region, isInside](auto& manager, auto& delegate) {
    isInside ? delegate.didEnterRegion(manager, region) : delegate.didExitRegion(manager, region);
  });
}

}  // namespace marbleway::desktop
