#include "desktop/peer.h"

#include <utility>

namespace marbleway::desktop {
namespace {

// A peer that the bus starts is started again this long after it has gone.
constexpr std::chrono::seconds kRestartDelay{10};

Method ofBus(const char* member) {
  return {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member};
}

}  // namespace

Peer::Peer(Bus& bus, sd_event* event, const char* name, Activation activation,
           std::function<void()> onAppear, std::function<void()> onVanish)
    : bus_(bus),
      name_(name),
      activation_(activation),
      onAppear_(std::move(onAppear)),
      onVanish_(std::move(onVanish)),
      restartTimer_(event, [this] { findOwner(); }) {
  bus.add(*this);
}

void Peer::start() {
  if (std::exchange(isStarted_, true)) return;
  findOwner();
}

void Peer::stop() {
  isStarted_ = wasThere_ = false;
  restartTimer_.stop();
  owner_.clear();
  subscriptions_.clear();
  ownerWatch_.reset();
}

void Peer::findOwner() {
  ownerWatch_ = bus_.subscribe(
      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
          name_ + "'",
      [this](sd_bus_message* signal) {
        const char *name = nullptr, *former = nullptr, *owner = nullptr;
        if (sd_bus_message_read(signal, "sss", &name, &former, &owner) > 0) setOwner(owner);
      });
  if (activation_ == Activation::none) return askOwner();
  bus_.call(
      ofBus("StartServiceByName"), [this](sd_bus_message* /*reply*/) { askOwner(); }, "su",
      name_.c_str(), 0U);
}

void Peer::askOwner() {
  if (!isStarted_) return;
  const auto onReply = [this](sd_bus_message* reply) {
    const char* owner = nullptr;
    if (!isStarted_) return;
    if (isAnswer(reply) && sd_bus_message_read(reply, "s", &owner) > 0) return setOwner(owner);
    if (!wasThere_) stop();
  };
  bus_.call(ofBus("GetNameOwner"), onReply, "s", name_.c_str());
}

void Peer::setOwner(const std::string& owner) {
  if (owner == owner_) return;
  subscriptions_.clear();
  if (isThere()) onVanish_();
  owner_ = owner;
  if (isThere()) {
    wasThere_ = true;
    restartTimer_.stop();
    onAppear_();
  } else if (activation_ == Activation::byBus) {
    restartTimer_.start(kRestartDelay);
  }
}

void Peer::subscribe(const std::string& rule, Bus::Handler onSignal) {
  subscriptions_.push_back(
      bus_.subscribe("type='signal',sender='" + owner_ + "'," + rule, std::move(onSignal)));
}

void Peer::onBusLost() {
  if (!isStarted_) return;
  if (!wasThere_) return stop();
  setOwner({});
  restartTimer_.stop();
  ownerWatch_.reset();
}

void Peer::onBusReturned() {
  if (isStarted_) findOwner();
}

}  // namespace marbleway::desktop
