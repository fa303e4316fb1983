#include <windows.h>
#include <bcrypt.h>
#include <winternl.h>

#include <array>
#include <cstdint>
#include <string>

#include "Marbleway/platform/services.h"
#include "Marbleway/platform/windows/time_zone.h"

namespace marbleway::platform {
namespace {

template <std::size_t Size>
std::array<unsigned char, Size> randomBytes() {
  std::array<unsigned char, Size> bytes{};
  (void)BCryptGenRandom(nullptr, bytes.data(), Size, BCRYPT_USE_SYSTEM_PREFERRED_RNG);
  return bytes;
}

/// The version of the system itself: the usual functions name the one that the program was made
/// for.
OSVERSIONINFOEXW version() {
  using GetVersion = LONG WINAPI(OSVERSIONINFOEXW*);
  OSVERSIONINFOEXW facts{};
  facts.dwOSVersionInfoSize = sizeof(facts);
  auto* get = reinterpret_cast<GetVersion*>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
  if (get != nullptr) (void)get(&facts);
  return facts;
}

class WindowsDevice final : public Device {
 public:
  std::string vendorIdentifier() override { return storedVendorIdentifier(*this); }

  std::string advertisingIdentifier() override { return {}; }

  std::string systemVersion() override {
    const OSVERSIONINFOEXW facts = version();
    return std::to_string(facts.dwMajorVersion)
        .append(".")
        .append(std::to_string(facts.dwMinorVersion))
        .append(".")
        .append(std::to_string(facts.dwBuildNumber));
  }

  std::string model() override {
    SYSTEM_INFO facts{};
    GetNativeSystemInfo(&facts);
    switch (facts.wProcessorArchitecture) {
      case PROCESSOR_ARCHITECTURE_AMD64:
        return "x86_64";
      case PROCESSOR_ARCHITECTURE_ARM64:
        return "aarch64";
      case PROCESSOR_ARCHITECTURE_INTEL:
        return "i686";
      default:
        return "unknown";
    }
  }

  std::string timeZone() override { return timeZoneName(); }

  std::string newIdentifier() override {
    auto bytes = randomBytes<16>();
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0FU) | 0x40U);  // version 4: random
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3FU) | 0x80U);  // the usual variant
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
      for (const unsigned digit : {bytes[i] / 16U, bytes[i] % 16U}) {
        text.push_back("0123456789ABCDEF"[digit]);
      }
    }
    return text;
  }

  std::uint32_t randomBelow(std::uint32_t bound) override {
    std::uint64_t random = 0;
    for (const unsigned char byte : randomBytes<8>()) random = random << 8U | byte;
    return static_cast<std::uint32_t>(random % bound);
  }
};

}  // namespace

std::shared_ptr<Device> makeDevice() { return std::make_shared<WindowsDevice>(); }

}  // namespace marbleway::platform
