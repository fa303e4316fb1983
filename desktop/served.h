#pragma once

#include <memory>

#include "desktop/beacons.h"
#include "desktop/bus.h"
#include "desktop/bus_thread.h"
#include "desktop/network.h"
#include "desktop/places.h"
#include "desktop/receiver.h"

namespace marbleway::desktop {

/// What lives on the bus thread, from its start to its end.
struct Served {
  /// Throws std::bad_alloc without an event loop. `wakeUp` is an eventfd that ends a wait.
  Served(const Setting& setting, int wakeUp);

  bool isNeeded() const { return system.isNeeded() || session.isNeeded(); }
  /// Between two waits.
  void maintain();

  Event event;
  Source wakeUp;
  Bus system, session;
  Network network;
  Receiver receiver;
  Places places;
  Beacons beacons;
};

}  // namespace marbleway::desktop
