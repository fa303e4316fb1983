#pragma once

#include <memory>

#include "desktop/beacons.h"
#include "desktop/bus.h"
#include "desktop/bus_thread.h"
#include "desktop/network.h"
#include "desktop/places.h"
#include "desktop/receiver.h"

namespace marbleway::desktop {

/// The objects of the bus thread. It makes them at its start and destroys them at its end.
struct BusServices {
  /// `wakeUp` is an eventfd that ends a wait.
  BusServices(const Setting& setting, int wakeUp);

  /// False without an event loop: nothing can be used then.
  bool isUsable() const { return wakeUp != nullptr; }
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
