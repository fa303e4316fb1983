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

std::size_t cutPosition(std::string_view text, std::size_t most) noexcept {
  for (std::size_t position = most; position > 0 && position + 4 > most; --position) {
    if ((static_cast<unsigned char>(text[position]) & 0xC0U) != 0x80U) return position;
  }
  return most;  // no character has four continuation bytes
}

std::string encoded(char32_t character) {
  const auto byte = [&](unsigned shift) {  // a continuation byte
    return static_cast<char>(0x80U | ((character >> shift) & 0x3FU));
  };
  const auto first = [&](unsigned mark, unsigned shift) {
    return static_cast<char>(mark | (character >> shift));
  };
  std::string sequence;
  if (character < 0x80) {
    sequence = {first(0, 0)};
  } else if (character < 0x800) {
    sequence = {first(0xC0, 6), byte(0)};
  } else if (character < 0x10000) {
    sequence = {first(0xE0, 12), byte(6), byte(0)};
  } else {
    sequence = {first(0xF0, 18), byte(12), byte(6), byte(0)};
  }
  return validPrefix(sequence) == sequence.size() ? sequence : std::string(kReplacement);
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
