#include "desktop/bus.h"

#include <algorithm>
#include <utility>

#include "desktop/peer.h"

namespace marbleway::desktop {
namespace {

using std::chrono::steady_clock;

// Between the loss of a connection and the next one: doubled each time, short again after a
// connection that lasted.
constexpr std::chrono::milliseconds kMinDelay{1'000}, kMaxDelay{64'000};

int onDisconnected(sd_bus_message* /*signal*/, void* isLost, sd_bus_error* /*error*/) {
  *static_cast<bool*>(isLost) = true;
  return 0;
}

}  // namespace

/// A handler that sd-bus holds.
struct Bus::Pending {
  static int run(sd_bus_message* message, void* pending, sd_bus_error* /*error*/) {
    catchAll([&] { static_cast<Pending*>(pending)->handler(message); });
    return 0;
  }
  static void destroy(void* pending) {
    const std::unique_ptr<Pending> owned(static_cast<Pending*>(pending));
    --owned->bus.handlers_;
  }

  Bus& bus;
  Handler handler;
};

Bus::Bus(sd_event* event, std::string address)
    : event_(event),
      address_(std::move(address)),
      reconnect_(event, [this] { reconnect(); }),
      delay_(kMinDelay) {}

bool Bus::isConnected() {
  if (connection_) return !isLost_;
  sd_bus* opened = nullptr;
  if (address_.empty() || sd_bus_new(&opened) < 0) return false;
  Connection connection(opened);
  if (sd_bus_set_address(opened, address_.c_str()) < 0 || sd_bus_set_bus_client(opened, 1) < 0 ||
      sd_bus_start(opened) < 0 || sd_bus_attach_event(opened, event_, 0) < 0 ||
      sd_bus_match_signal(opened, nullptr, "org.freedesktop.DBus.Local",
                          "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                          "Disconnected", onDisconnected, &isLost_) < 0) {
    return false;
  }
  connection_ = std::move(connection);
  opened_ = steady_clock::now();
  return true;
}

Message Bus::newCall(const Method& method) {
  sd_bus_message* message = nullptr;
  if (isConnected()) {
    sd_bus_message_new_method_call(connection_.get(), &message, method.destination, method.path,
                                   method.interface, method.member);
  }
  return Message(message);
}

/// Gives `pending` to `slot`; both are destroyed if there is no slot.
Slot Bus::adopt(sd_bus_slot* slot, Pending* pending) {
  ++handlers_;
  if (slot != nullptr && sd_bus_slot_set_destroy_callback(slot, Pending::destroy) >= 0) {
    return Slot(slot);
  }
  sd_bus_slot_unref(slot);
  Pending::destroy(pending);
  return nullptr;
}

void Bus::send(sd_bus_message* message, Handler onReply) {
  auto pending = std::make_unique<Pending>(Pending{*this, std::move(onReply)});
  sd_bus_slot* raw = nullptr;
  if (sd_bus_call_async(connection_.get(), &raw, message, Pending::run, pending.get(), 0) < 0) {
    return pending->handler(nullptr);
  }
  const Slot slot = adopt(raw, pending.release());
  if (slot) sd_bus_slot_set_floating(slot.get(), 1);  // the connection holds it until the reply
}

Slot Bus::subscribe(const std::string& rule, Handler onSignal) {
  if (!isConnected()) return nullptr;
  auto pending = std::make_unique<Pending>(Pending{*this, std::move(onSignal)});
  sd_bus_slot* raw = nullptr;
  sd_bus_add_match_async(connection_.get(), &raw, rule.c_str(), Pending::run, nullptr,
                         pending.get());
  return adopt(raw, pending.release());
}

void Bus::maintain() {
  if (isLost_) {
    for (Peer* peer : peers_) peer->onBusLost();
    connection_.reset();
    isLost_ = staysConnected_ = false;
    if (steady_clock::now() - opened_ > kMaxDelay) delay_ = kMinDelay;
    reconnectLater();
  } else if (!isNeeded()) {
    connection_.reset();
  }
}

void Bus::reconnectLater() {
  const auto isWatching = [](const Peer* peer) { return peer->isStarted(); };
  if (std::none_of(peers_.begin(), peers_.end(), isWatching)) return;
  reconnect_.start(delay_);
  delay_ = std::min(2 * delay_, kMaxDelay);
}

void Bus::reconnect() {
  if (!isConnected()) return reconnectLater();
  for (Peer* peer : peers_) peer->onBusReturned();
}

}  // namespace marbleway::desktop
