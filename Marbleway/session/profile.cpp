#include "Marbleway/session/profile.h"

#include <string_view>

#include "Marbleway/session/connection_type.h"
#include "Marbleway/startup/configuration.h"
#include "Marbleway/startup/state.h"
#include "platform/platform.h"

namespace marbleway {
namespace {

// The text under `key`; one that is missing is made and kept.
template <class Make>
std::string kept(std::string_view key, Make make) {
  const auto defaults = platform::current()->userDefaults;
  if (auto text = defaults->text(key)) return *text;
  std::string made = make();
  defaults->setText(key, made);
  defaults->synchronize();
  return defaults->text(key).value_or(made);  // another process may have been first
}

}  // namespace

Profile gatherProfile() {
  const auto services = platform::current();
  const auto host = configuration();
  Profile profile;
  profile.PlatformDeviceID = services->device->vendorIdentifier();
  profile.OS = "iOS";
  profile.Manufacturer = "Apple";
  profile.OSVersion = services->device->systemVersion();
  profile.AppVersion = host->appVersion;
  profile.Model = services->device->model();
  profile.Carrier = "Unknown";
  profile.BundleID = host->bundleIdentifier;
  profile.TimeZone = services->device->timeZone();
  profile.ConnectionType = connectionType(services->statusBar->view().get());
  return profile;
}

std::string userIdentifier() {
  constexpr std::uint32_t kFirst = 9999;
  constexpr std::uint32_t kNumbers = 499990002;
  return kept("Marbleway_UserID", [] {
    const std::uint32_t random = platform::current()->device->randomBelow(kNumbers);
    return "user" + std::to_string(kFirst + random);
  });
}

std::string genericDeviceIdentifier() {
  return kept("Marbleway_GenericDeviceID",
              [] { return platform::current()->device->newIdentifier(); });
}

}  // namespace marbleway
