#pragma once

#include <string>

namespace marbleway {

/// What a session row tells of the device, a text a field.
struct Profile {
  std::string PlatformDeviceID;  // of the vendor; in privacy mode the generic one instead
  std::string AdvertisingID;
  std::string OS, Manufacturer, OSVersion, AppVersion, Model, Carrier, BundleID, TimeZone;
  std::string ConnectionType;
  std::string PrivacyMode;
};

/// Asks the device for its profile, anew at each call.
Profile gatherProfile();

/// The identifier of this installation's user: the one linked last, else a generic one, "user" and
/// a number from 9999 to 500000000, which is made once and kept.
std::string userIdentifier();
/// A device identifier that was made for this installation and is kept.
std::string genericDeviceIdentifier();

}  // namespace marbleway
