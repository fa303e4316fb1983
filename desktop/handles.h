#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <utility>

namespace marbleway::desktop {

template <auto release>
struct Releaser {
  template <class T>
  void operator()(T* object) const {
    release(object);
  }
};

using Event = std::unique_ptr<sd_event, Releaser<sd_event_unref>>;
using Source = std::unique_ptr<sd_event_source, Releaser<sd_event_source_disable_unref>>;
using Connection = std::unique_ptr<sd_bus, Releaser<sd_bus_close_unref>>;
using Message = std::unique_ptr<sd_bus_message, Releaser<sd_bus_message_unref>>;
using Slot = std::unique_ptr<sd_bus_slot, Releaser<sd_bus_slot_unref>>;

/// Runs `work`; an exception that leaves it ends it and nothing else.
template <class Work>
void catchAll(Work&& work) noexcept {
  try {
    std::forward<Work>(work)();
  } catch (...) {  // what was being done is lost in silence
  }
}

}  // namespace marbleway::desktop
