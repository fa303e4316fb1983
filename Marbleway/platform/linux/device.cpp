#include <sys/utsname.h>
#include <uuid/uuid.h>

#include <array>
#include <cstdlib>
#include <fstream>

#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/linux/services.h"
#include "Marbleway/platform/linux/time_zone.h"
#include "Marbleway/platform/platform.h"

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
  std::string vendorIdentifier() override {
    constexpr std::string_view kKey = "Marbleway_VendorID";
    const auto defaults = platform::current()->userDefaults;
    if (auto stored = defaults->text(kKey)) return *stored;

    const std::string created = newIdentifier();
    defaults->setTextIfMissing(kKey, created);
    defaults->synchronize();
    return defaults->text(kKey).value_or(created);
  }

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

class SystemClock final : public Clock {
 public:
  std::chrono::system_clock::time_point now() override { return std::chrono::system_clock::now(); }
};

}  // namespace

std::shared_ptr<Device> makeLinuxDevice() { return std::make_shared<LinuxDevice>(); }

std::shared_ptr<Clock> makeSystemClock() { return std::make_shared<SystemClock>(); }

}  // namespace marbleway::platform
