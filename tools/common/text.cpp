#include "tools/common/text.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace tools {
namespace {

/// Calls `take` with each code point of `bytes`, until it returns false.
void eachCodePoint(std::string_view bytes, const auto& take) {
  rapidjson::MemoryStream source(bytes.data(), bytes.size());
  bool goesOn = true;
  while (goesOn && source.Tell() < bytes.size()) {
    unsigned code = 0;
    const bool isValid = rapidjson::UTF8<>::Decode(source, &code);
    goesOn = take(isValid ? code : 0xFFFD);
  }
}

std::string encoded(unsigned code) {
  rapidjson::StringBuffer text;
  rapidjson::UTF8<>::Encode(text, code);
  return {text.GetString(), text.GetSize()};
}

/// Control characters, line separators, and what changes the direction of text.
bool controlsTerminals(unsigned code) {
  constexpr std::pair<unsigned, unsigned> kRanges[] = {
      {0x00, 0x1F},     {0x7F, 0x9F},     {0x200B, 0x200F},  {0x2028, 0x202E},
      {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xE0000, 0xE007F}};
  return std::ranges::any_of(
      kRanges, [&](auto range) { return code >= range.first && code <= range.second; });
}

std::string spelledOut(unsigned code) {
  if (code == '\n') return "\\n";
  if (code == '\t') return "\\t";
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "\\u%04x", code);
  return text.data();
}

/// True for the first byte of a character.
bool isFirstByte(char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80; }

}  // namespace

std::string asUtf8(std::string_view bytes) {
  std::string text;
  eachCodePoint(bytes, [&](unsigned code) {
    text.append(encoded(code));
    return true;
  });
  return text;
}

std::string printable(std::string_view bytes, std::size_t maxCharacters) {
  std::string line;
  std::size_t characters = 0;
  eachCodePoint(bytes, [&](unsigned code) {
    const std::string shown = controlsTerminals(code) ? spelledOut(code) : encoded(code);
    line.append(shown);
    characters += charactersOf(shown);
    return characters <= maxCharacters;
  });
  if (characters <= maxCharacters) return line;
  std::size_t place = 0;
  const auto end = std::ranges::find_if(
      line, [&](char c) { return isFirstByte(c) && ++place > maxCharacters - 3; });
  return std::string(line.begin(), end).append("...");
}

std::string inQuotes(std::string_view bytes) {
  return std::string("\"").append(printable(bytes, 80)).append("\"");
}

std::size_t charactersOf(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(text, isFirstByte));
}

}  // namespace tools
