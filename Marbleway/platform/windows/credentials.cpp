#include "Marbleway/platform/windows/credentials.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace marbleway::platform {
namespace {

std::string unescaped(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned char byte = 0;
    const char* const digits = text.data() + i + 1;
    const bool isEscape = text[i] == '%' && i + 2 < text.size() &&
                          std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2;
    result.push_back(isEscape ? static_cast<char>(byte) : text[i]);
    if (isEscape) i += 2;
  }
  return result;
}

std::string base64(std::string_view bytes) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string result;
  for (; !bytes.empty(); bytes.remove_prefix(std::min<std::size_t>(bytes.size(), 3))) {
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      group = group << 8U | (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U);
    }
    for (std::size_t i = 0; i < 4; ++i) {
      result.push_back(i <= bytes.size() ? kDigits[group >> (18 - 6 * i) & 0x3FU] : '=');
    }
  }
  return result;
}

}  // namespace

std::string basicCredentials(std::string_view user, std::string_view password) {
  return "Basic " + base64(unescaped(user).append(":").append(unescaped(password)));
}

}  // namespace marbleway::platform
