#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace marbleway {

/// U+FFFD, which replaces each byte that belongs to no valid sequence.
inline constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

/// The length of the valid UTF-8 sequence at the start of `text`, which has `left` (at least 1)
/// bytes; 0 when there is none. Overlong forms, surrogates and values above U+10FFFF are invalid
/// (Unicode 15, table 3-7).
inline std::size_t sequenceLength(const char* text, std::size_t left) noexcept {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto continues = [&](std::size_t i) { return (byte(i) & 0xC0U) == 0x80U; };
  const unsigned first = byte(0);
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4 || left < 2) return 0;
  if (first < 0xE0) return continues(1) ? 2 : 0;

  const unsigned second = byte(1);
  const unsigned low = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
  const unsigned high = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
  if (second < low || second > high || left < 3 || !continues(2)) return 0;
  if (first < 0xF0) return 3;
  return left >= 4 && continues(3) ? 4 : 0;
}

/// The length of the longest start of `text` that is valid UTF-8.
std::size_t validPrefix(std::string_view text) noexcept;

/// Where `text` can be cut between two characters: at `most`, which is below its size, or up to
/// three bytes before.
std::size_t cutPosition(std::string_view text, std::size_t most) noexcept;

/// The UTF-8 sequence of a character; U+FFFD where it is no character of Unicode.
std::string encoded(char32_t character);

/// `text` with every byte that belongs to no valid sequence replaced by U+FFFD.
std::string repaired(std::string_view text);

}  // namespace marbleway
