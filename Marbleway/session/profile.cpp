#include "Marbleway/session/profile.h"

#include <string_view>

#include "Marbleway/core/configuration.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/session/connection_type.h"

namespace marbleway {
namespace {

// The text under `key`; a missing one is created and stored, unless another process was first.
template <class Create>
std::string loadOrCreate(std::string_view key, Create create) {
  const auto services = platform::current();
  const auto& defaults = services->userDefaults;
  if (auto text = defaults->text(key)) return *text;
  const std::string created = create();
  defaults->setTextIfMissing(key, created);
  // The vendor's identifier, if it is missing too, is created now: one write stores both.
  catchAll([&] { services->device->vendorIdentifier(); });
  defaults->synchronize();
  return defaults->text(key).value_or(created);
}

}  // namespace

Profile gatherProfile() {
  const auto services = platform::current();
  const auto host = configuration();
  Profile profile;
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
  return loadOrCreate("Marbleway_UserID", [] {
    const std::uint32_t random = platform::current()->device->randomBelow(kNumbers);
    return "user" + std::to_string(kFirst + random);
  });
}

std::string genericDeviceIdentifier() {
  return loadOrCreate("Marbleway_GenericDeviceID",
                      [] { return platform::current()->device->newIdentifier(); });
}

}  // namespace marbleway
