#pragma once

#include <functional>
#include <string>
#include <vector>

#include "desktop/bus.h"

namespace marbleway::desktop {

/// A service of the system that this one relies on, by its name on the bus. One that is missing at
/// the first look is not waited for; one that was there is, when it or the bus restarts. Thread:
/// the bus thread.
class Peer {
 public:
  enum class Activation { none, byBus };

  /// `onAppear` runs when the peer is there, each time; `onVanish` when it is gone.
  Peer(Bus& bus, sd_event* event, const char* name, Activation activation,
       std::function<void()> onAppear, std::function<void()> onVanish);
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() = default;

  /// Looks for the peer and watches it. Nothing changes for one that is watched.
  void start();
  /// Ends the watch, without a call of `onVanish`.
  void stop();
  bool isStarted() const { return isStarted_; }
  bool isThere() const { return !owner_.empty(); }

  template <class... Arguments>
  void call(const char* path, const char* interface, const char* member, Bus::Handler onReply,
            const char* types = "", Arguments... arguments) {
    bus_.call({owner_.c_str(), path, interface, member}, std::move(onReply), types, arguments...);
  }
  /// Has `onSignal` run for the peer's signals of `rule` until it vanishes.
  void subscribe(const std::string& rule, Bus::Handler onSignal);

  void onBusLost();
  void onBusReturned();

 private:
  void findOwner();
  void askOwner();
  void setOwner(const std::string& owner);

  Bus& bus_;
  const std::string name_;
  const Activation activation_;
  const std::function<void()> onAppear_, onVanish_;
  Timer restartTimer_;
  bool isStarted_ = false;
  bool wasThere_ = false;
  std::string owner_;  // its unique name: signals of others are not heard
  Slot ownerWatch_;
  std::vector<Slot> subscriptions_;
};

}  // namespace marbleway::desktop
