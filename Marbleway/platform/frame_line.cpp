#include "Marbleway/platform/frame_line.h"

#include <algorithm>

namespace marbleway::platform {

std::string hexadecimal(std::uint64_t number, std::size_t digits) {
  std::string text;
  for (; number != 0 || text.size() < digits; number /= 16) {
    text.push_back("0123456789abcdef"[number % 16]);
  }
  std::ranges::reverse(text);
  return text.insert(0, "0x");
}

std::string frameLine(std::size_t number, std::uint64_t address, const std::string& module) {
  std::string line = std::to_string(number);
  return line.append(" ").append(module).append(" ").append(hexadecimal(address, 16));
}

}  // namespace marbleway::platform
