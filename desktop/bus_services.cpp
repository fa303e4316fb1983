#include "desktop/bus_services.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

namespace marbleway::desktop {
namespace {

Event makeEvent() {
  sd_event* event = nullptr;
  sd_event_new(&event);
  return Event(event);
}

int drain(sd_event_source* /*source*/, int descriptor, std::uint32_t /*events*/, void* /*none*/) {
  eventfd_t count = 0;
  eventfd_read(descriptor, &count);
  return 0;
}

Source watch(sd_event* event, int wakeUp) {
  sd_event_source* source = nullptr;
  sd_event_add_io(event, &source, wakeUp, EPOLLIN, drain, nullptr);
  return Source(source);
}

}  // namespace

BusServices::BusServices(const Setting& setting, int descriptor)
    : event(makeEvent()),
      wakeUp(watch(event.get(), descriptor)),
      system(event.get(), setting.systemAddress),
      session(event.get(), setting.sessionAddress),
      network(system, event.get()),
      places(system, event.get(), receiver, setting.desktopEntry),
      beacons(system, event.get(), receiver) {}

void BusServices::maintain() {
  system.maintain();
  session.maintain();
}

}  // namespace marbleway::desktop
