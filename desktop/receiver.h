#pragma once

#include <functional>
#include <memory>

#include "desktop/location_manager.h"

namespace marbleway::desktop {

/// The location manager that was made last: it gets the events. Thread: the bus thread.
class Receiver {
 public:
  using Event = std::function<void(platform::LocationManager&, platform::LocationDelegate&)>;

  void set(std::weak_ptr<LocationManager> manager) { manager_ = std::move(manager); }
  /// True once the library holds no manager any more.
  bool isGone() const { return manager_.expired(); }
  /// Runs `event` on the library's main loop, if the manager is still there then.
  void report(Event event) const;
  /// Reports that the device has entered or left the region of this name.
  void reportCrossing(const platform::Region& region, bool isInside) const;

 private:
  std::weak_ptr<LocationManager> manager_;
};

}  // namespace marbleway::desktop
