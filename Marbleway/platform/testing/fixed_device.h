#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "../device.h"

namespace marbleway::platform::testing {

/// The results of a `FixedDevice`.
struct DeviceFacts {
  ///@{
  /// The result of the function of this name.
  std::string vendorIdentifier = "AAAAAAAA-0000-0000-0000-000000000001";
  std::string advertisingIdentifier = "BBBBBBBB-0000-0000-0000-000000000001";
  std::string systemVersion = "12.5";
  std::string model = "x86_64";
  std::string timeZone = "Europe/Berlin";
  ///@}
  std::uint32_t randomNumber = 1234567;  ///< Taken modulo the bound.
};

/// A device without randomness: new identifiers count upwards from
/// "00000000-0000-0000-0000-000000000001". Thread: any.
class FixedDevice : public Device {
 public:
  /// Returns `facts`.
  explicit FixedDevice(DeviceFacts facts = {}) : facts_(std::move(facts)) {}

  /// Returns other facts from now on.
  void setFacts(DeviceFacts facts) {
    const std::scoped_lock lock(mutex_);
    facts_ = std::move(facts);
  }
  /// The present facts.
  DeviceFacts facts() const {
    const std::scoped_lock lock(mutex_);
    return facts_;
  }

  std::string vendorIdentifier() override { return facts().vendorIdentifier; }
  std::string advertisingIdentifier() override { return facts().advertisingIdentifier; }
  std::string systemVersion() override { return facts().systemVersion; }
  std::string model() override { return facts().model; }
  std::string timeZone() override { return facts().timeZone; }
  std::uint32_t randomBelow(std::uint32_t bound) override { return facts().randomNumber % bound; }

  std::string newIdentifier() override {
    const std::scoped_lock lock(mutex_);
    const std::string number = std::to_string(++made_);
    std::string identifier = "00000000-0000-0000-0000-000000000000";
    return identifier.replace(identifier.size() - number.size(), number.size(), number);
  }

 private:
  mutable std::mutex mutex_;
  DeviceFacts facts_;
  std::uint32_t made_ = 0;
};

}  // namespace marbleway::platform::testing
