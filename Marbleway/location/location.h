#pragma once

#include <string_view>
#include <vector>

#include "platform/location.h"

namespace marbleway {

/// Sets a new location manager to work; see `Marbleway::setLocationMonitoringEnabled`.
void startLocationMonitoring();

/// Shows an alert titled `title` with the region's identifier.
void showRegionAlert(std::string_view title, const platform::Region& region);
/// Shows an alert for each beacon whose signal strength is exactly -28 dBm.
void showBeaconAlerts(const std::vector<platform::Beacon>& beacons);

}  // namespace marbleway
