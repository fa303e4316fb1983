#pragma once

#include <cstdint>
#include <string>

#include "export.h"

namespace marbleway::platform {

/// Facts of the device. Thread: any.
class MARBLEWAY_EXPORT Device {
 public:
  virtual ~Device() = default;
  /// The identifier of this device for one vendor: an upper-case UUID that does not change.
  virtual std::string vendorIdentifier() = 0;
  /// The advertising identifier as an upper-case UUID; empty when there is none.
  virtual std::string advertisingIdentifier() = 0;
  /// The operating system's version.
  virtual std::string systemVersion() = 0;
  /// The machine's name in `uname`.
  virtual std::string model() = 0;
  /// The local time zone's IANA name, such as "Europe/Berlin".
  virtual std::string timeZone() = 0;
  /// A new random UUID in upper case, 36 characters.
  virtual std::string newIdentifier() = 0;
  /// A uniform random number below `bound`.
  virtual std::uint32_t randomBelow(std::uint32_t bound) = 0;
};

}  // namespace marbleway::platform
