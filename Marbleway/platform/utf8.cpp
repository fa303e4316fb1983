#include "Marbleway/platform/utf8.h"

#include <cstdint>
#include <cstring>

namespace marbleway {

std::size_t validPrefix(std::string_view text) noexcept {
  std::size_t at = 0;
  while (at < text.size()) {
    std::uint64_t eight = 0;
    if (text.size() - at >= sizeof eight) {
      std::memcpy(&eight, text.data() + at, sizeof eight);
      if ((eight & 0x8080808080808080U) == 0) {
        at += sizeof eight;
        continue;
      }
    }
    const std::size_t length = sequenceLength(text.data() + at, text.size() - at);
    if (length == 0) return at;
    at += length;
  }
  return at;
}

std::string repaired(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (true) {
    const std::size_t valid = validPrefix(text);
    result.append(text.substr(0, valid));
    if (valid == text.size()) return result;
    result.append(kReplacement);
    text.remove_prefix(valid + 1);
  }
}

}  // namespace marbleway
