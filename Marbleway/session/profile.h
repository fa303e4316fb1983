#pragma once

#include <string>

namespace marbleway {

/// The device's fields of a session row.
struct Profile {
  std::string PlatformDeviceID;  // the vendor's identifier; in privacy mode the generic one
  std::string AdvertisingID;
  std::string OS, Manufacturer, OSVersion, AppVersion, Model, Carrier, BundleID, TimeZone;
  std::string ConnectionType;
  std::string PrivacyMode;
};

/// What the device and the host say at each call; without the identifiers and the privacy mode.
Profile gatherProfile();

/// The identifier of this installation's user: the one linked last, else a generic one, "user" and
/// a number from 9999 to 500000000, which is created once and persisted.
std::string userIdentifier();
/// A generic device identifier, created once for this installation and persisted.
std::string genericDeviceIdentifier();

}  // namespace marbleway
