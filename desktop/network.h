#pragma once

#include <atomic>
#include <string_view>

#include "desktop/peer.h"

namespace marbleway::desktop {

/// The kind of the connection as the status bar numbers it, its "dataNetworkType": 1 "2G", 2 "3G",
/// 3 "4G", 4 "LTE", 5 "Wifi"; 0: another one, none, or unknown. Written on the bus thread.
inline constinit std::atomic<int> dataNetworkType{0};

/// Follows the primary connection of NetworkManager and, while that is a mobile one, the access
/// technology in ModemManager. Thread: the bus thread.
class Network {
 public:
  Network(Bus& system, sd_event* event);
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;
  ~Network() { dataNetworkType = 0; }

  void start() { manager_.start(); }

 private:
  void watchPrimary();
  void setPrimary(std::string_view type);
  void watchModems();
  void readModems();

  Peer manager_, modems_;
};

}  // namespace marbleway::desktop
