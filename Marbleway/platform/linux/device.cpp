#include <sys/utsname.h>
#include <uuid/uuid.h>

#include <array>
#include <cstdlib>
#include <fstream>

#include "Marbleway/platform/linux/time_zone.h"
#include "Marbleway/platform/services.h"

namespace marbleway::platform {
namespace {

/// A new UUID, in upper case.
std::string newUUID() {
  uuid_t bytes;
  uuid_generate_random(bytes);
  std::array<char, UUID_STR_LEN> text{};
  uuid_unparse_upper(bytes, text.data());
  return text.data();
}

/// The value of "VERSION_ID" in the description of the distribution; empty when there is none.
std::string distributionVersion() {
  constexpr std::string_view kKey = "VERSION_ID=";
  std::ifstream description("/etc/os-release");
  for (std::string line; std::getline(description, line);) {
    if (!line.starts_with(kKey)) continue;
    line.erase(0, kKey.size());
    std::erase_if(line, [](char character) { return character == '"' || character == '\''; });
    return line;
  }
  return {};
}

class LinuxDevice final : public Device {
 public:
  std::string vendorIdentifier() override { return storedVendorIdentifier(*this); }
  std::string advertisingIdentifier() override { return {}; }

  std::string systemVersion() override {
    std::string version = distributionVersion();
    return version.empty() ? kernel().release : version;
  }

  std::string model() override { return kernel().machine; }

  std::string timeZone() override { return timeZoneName(secure_getenv("TZ")); }

  std::string newIdentifier() override { return newUUID(); }

  // From a UUID's random bytes: the C library's own numbers end a process that is denied getrandom.
  std::uint32_t randomBelow(std::uint32_t bound) override {
    uuid_t bytes;
    uuid_generate_random(bytes);
    std::uint64_t random = 0;  // without the bytes 6 to 8, which hold the version and the variant
    for (const std::size_t i : {0U, 1U, 2U, 3U, 4U, 5U, 9U, 10U}) random = random << 8U | bytes[i];
    return static_cast<std::uint32_t>(random % bound);
  }

 private:
  static utsname kernel() {
    utsname facts{};
    uname(&facts);
    return facts;
  }
};

}  // namespace

std::shared_ptr<Device> makeDevice() { return std::make_shared<LinuxDevice>(); }

}  // namespace marbleway::platform
