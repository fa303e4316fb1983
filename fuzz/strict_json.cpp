#include "fuzz/strict_json.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

namespace marbleway::fuzz {
namespace {

std::string encoded(std::uint32_t point) {
  const auto byte = [](std::uint32_t bits) { return static_cast<char>(bits); };
  const auto tail = [&](unsigned shift) { return byte(0x80U | ((point >> shift) & 0x3FU)); };
  if (point < 0x80) return {byte(point)};
  if (point < 0x800) return {byte(0xC0U | (point >> 6U)), tail(0)};
  if (point < 0x10000) return {byte(0xE0U | (point >> 12U)), tail(6), tail(0)};
  return {byte(0xF0U | (point >> 18U)), tail(12), tail(6), tail(0)};
}

/// The code point that `bytes` would stand for, were every rule but the shortest form dropped.
std::uint32_t looselyDecoded(std::string_view bytes) {
  constexpr std::array<std::uint32_t, 5> kFirstBits{0, 0x7F, 0x1F, 0x0F, 0x07};
  std::uint32_t point = 0;
  for (const char byte : bytes) point = (point << 6U) | (static_cast<unsigned char>(byte) & 0x3FU);
  const auto first = static_cast<unsigned char>(bytes[0]) & kFirstBits.at(bytes.size());
  const auto rest = 6U * static_cast<unsigned>(bytes.size() - 1);
  return (first << rest) | (point & ((1U << rest) - 1U));
}

/// Bytes of the valid sequence at the start of `text`; 0 without one.
std::size_t sequenceAt(std::string_view text) {
  for (std::size_t size = 1; size <= 4 && size <= text.size(); ++size) {
    const std::uint32_t point = looselyDecoded(text.substr(0, size));
    const bool isScalar = point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
    if (isScalar && encoded(point) == text.substr(0, size)) return size;
  }
  return 0;
}

/// One function a rule of the grammar; each takes what it matches off the front.
class Reader {
 public:
  explicit Reader(std::string_view json) : rest_(json) {}

  std::optional<Reading> read() {
    if (!element(1) || !rest_.empty()) return std::nullopt;
    return std::move(reading_);
  }

 private:
  bool take(std::string_view word) {
    if (!rest_.starts_with(word)) return false;
    rest_.remove_prefix(word.size());
    return true;
  }
  /// Takes one byte out of `set`; '\0' without one.
  char takeOneOf(std::string_view set) {
    if (rest_.empty() || set.find(rest_[0]) == std::string_view::npos) return '\0';
    const char taken = rest_[0];
    rest_.remove_prefix(1);
    return taken;
  }
  bool digits() {
    if (takeOneOf("0123456789") == '\0') return false;
    while (takeOneOf("0123456789") != '\0') continue;
    return true;
  }
  void blanks() {
    while (takeOneOf(" \t\n\r") != '\0') continue;
  }

  bool element(std::size_t level) {
    blanks();
    if (!value(level)) return false;
    blanks();
    return true;
  }

  bool value(std::size_t level) {
    if (take("{")) return list(level, '}', [&] { return member(level); });
    if (take("[")) return list(level, ']', [&] { return element(level + 1); });
    if (take("\"")) return text();
    return take("true") || take("false") || take("null") || number();
  }

  template <class Item>
  bool list(std::size_t level, char end, Item item) {
    reading_.deepest = std::max(reading_.deepest, level);
    blanks();
    if (take({&end, 1})) return true;
    do {
      if (!item()) return false;
    } while (take(","));
    return take({&end, 1});
  }

  bool member(std::size_t level) {
    blanks();
    if (!take("\"") || !text()) return false;
    blanks();
    return take(":") && element(level + 1);
  }

  bool number() {
    take("-");
    if (!take("0") && !digits()) return false;
    if (take(".") && !digits()) return false;
    if (takeOneOf("eE") == '\0') return true;
    reading_.hasExponent = true;
    takeOneOf("+-");
    return digits();
  }

  bool text() {
    std::string content;
    while (!take("\"")) {
      if (take("\\")) {
        if (!escape(content)) return false;
        continue;
      }
      const std::size_t size =
          rest_.empty() || static_cast<unsigned char>(rest_[0]) < 0x20 ? 0 : sequenceAt(rest_);
      if (size == 0) return false;
      content.append(rest_.substr(0, size));
      rest_.remove_prefix(size);
    }
    reading_.texts.push_back(std::move(content));
    return true;
  }

  bool escape(std::string& content) {
    constexpr std::string_view kMarks = "\"\\/bfnrt";
    constexpr std::string_view kMeant = "\"\\/\b\f\n\r\t";
    if (const char mark = takeOneOf(kMarks); mark != '\0') {
      content += kMeant[kMarks.find(mark)];
      return true;
    }
    std::optional<std::uint32_t> point = unit();
    if (point && *point >= 0xD800 && *point < 0xDC00) {
      const auto low = take("\\") ? unit() : std::nullopt;
      if (!low || *low < 0xDC00 || *low > 0xDFFF) return false;
      point = 0x10000U + ((*point - 0xD800U) << 10U) + (*low - 0xDC00U);
    }
    if (!point || (*point >= 0xD800 && *point <= 0xDFFF)) return false;
    content += encoded(*point);
    return true;
  }

  /// "u" and four digits.
  std::optional<std::uint32_t> unit() {
    constexpr std::string_view kDigits = "0123456789abcdefABCDEF";
    if (!take("u")) return std::nullopt;
    std::uint32_t unit = 0;
    for (int i = 0; i < 4; ++i) {
      const char digit = takeOneOf(kDigits);
      if (digit == '\0') return std::nullopt;
      const auto at = static_cast<std::uint32_t>(kDigits.find(digit));
      unit = (unit << 4U) | (at < 16 ? at : at - 6);
    }
    return unit;
  }

  std::string_view rest_;
  Reading reading_;
};

}  // namespace

std::optional<Reading> readStrictly(std::string_view json) { return Reader(json).read(); }

bool isUTF8(std::string_view text) { return withReplacements(text) == text; }

std::string withReplacements(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::size_t size = sequenceAt(text);
    result += size > 0 ? std::string(text.substr(0, size)) : encoded(0xFFFD);
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return result;
}

}  // namespace marbleway::fuzz
