#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "desktop/peer.h"
#include "desktop/receiver.h"

namespace marbleway::desktop {

/// Where the device is, from GeoClue, and the circles that it is in. The person is asked by
/// GeoClue; after a refusal nothing is asked again until the next `start`. Thread: the bus thread.
class Places {
 public:
  /// A position of the device.
  struct Fix {
    double latitude = NAN, longitude = NAN;  // degrees
    double accuracy = -1;                    // metres around it; negative: unknown
  };

  Places(Bus& system, sd_event* event, Receiver& receiver, std::string desktopEntry);

  void setAccuracyBest();
  void setDistanceFilter(double metres);
  void start() { service_.start(); }
  void stop();
  /// Watches a circle, in place of one with the same identifier.
  void watch(const platform::CircularRegion& region);
  /// Reports the fix, and the circles that it leaves or enters for certain: those whose edge is
  /// further away than the accuracy. In between nothing changes, so that an inexact fix causes no
  /// alternation.
  void update(const Fix& fix);

 private:
  struct Circle {
    platform::CircularRegion region;
    bool isInside = false;
  };

  void askForClient();
  void startClient(const std::string& path);
  void setProperty(const char* name, const char* type, std::uint32_t value);
  void readFix(const char* path);

  Receiver& receiver_;
  const std::string desktopEntry_;
  std::uint32_t accuracyLevel_, distanceFilter_ = 0;  // metres
  std::string client_;                                // its path; empty: none yet
  std::vector<Circle> circles_;                       // in the order of their registration
  Peer service_;
};

}  // namespace marbleway::desktop
