#include "Marbleway/upload/document.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "platform/utf8.h"

namespace marbleway {
namespace {

// The longest thing that one byte of text turns into: \u001f.
constexpr std::size_t kLongestEscape = 6;

constexpr std::uint64_t eightTimes(unsigned char byte) { return 0x0101010101010101U * byte; }

// The top bit of each of the eight bytes that is a control, a quote, a backslash or beyond ASCII.
// The lowest bit that is set is right; bits above it may be set in vain, by a borrow from below.
std::uint64_t specialBytes(std::uint64_t eight) {
  const auto zeroBytes = [](std::uint64_t x) { return (x - eightTimes(1)) & ~x; };
  const std::uint64_t controls = (eight - eightTimes(0x20)) & ~eight;
  return (eight | controls | zeroBytes(eight ^ eightTimes('"')) |
          zeroBytes(eight ^ eightTimes('\\'))) &
         eightTimes(0x80);
}

// The number of bytes before the first special one, in the order of memory.
std::size_t plainBytes(std::uint64_t special) {
  static_assert(std::endian::native == std::endian::little);
  return static_cast<std::size_t>(std::countr_zero(special)) / 8;
}

char* put(char* out, std::string_view bytes) {
  std::memcpy(out, bytes.data(), bytes.size());
  return out + bytes.size();
}

// Writes the escape of an ASCII byte, or the byte itself.
char* putASCII(char* out, char byte) {
  constexpr std::string_view kHex = "0123456789abcdef";
  switch (byte) {
    case '"':
      return put(out, R"(\")");
    case '\\':
      return put(out, R"(\\)");
    case '\n':
      return put(out, R"(\n)");
    case '\r':
      return put(out, R"(\r)");
    case '\t':
      return put(out, R"(\t)");
    default:
      break;
  }
  const auto code = static_cast<unsigned char>(byte);
  if (code >= 0x20) {
    *out = byte;
    return out + 1;
  }
  out = put(out, R"(\u00)");
  *out++ = kHex[code >> 4U];
  *out++ = kHex[code & 0xFU];
  return out;
}

}  // namespace

void appendEscaped(platform::Buffer& buffer, std::string_view text) {
  char* const start = buffer.room(text.size() * kLongestEscape + sizeof(std::uint64_t));
  char* out = start;
  const char* in = text.data();
  const char* const end = in + text.size();
  while (in != end) {
    if (std::uint64_t eight = 0; end - in >= static_cast<std::ptrdiff_t>(sizeof eight)) {
      std::memcpy(&eight, in, sizeof eight);
      std::memcpy(out, &eight, sizeof eight);  // what is special in it is written over
      const std::size_t plain = plainBytes(specialBytes(eight));
      in += plain;
      out += plain;
      if (plain == sizeof eight) continue;
    }
    const std::size_t length = sequenceLength(in, static_cast<std::size_t>(end - in));
    if (length == 1) {
      out = putASCII(out, *in);
    } else {
      out = put(out, length > 1 ? std::string_view(in, length) : kReplacement);
    }
    in += std::max<std::size_t>(length, 1);
  }
  buffer.grow(static_cast<std::size_t>(out - start));
}

void Document::beginArray(const Table& table) {
  buffer_.append(isFirstArray_ ? "\"" : ",\"");
  buffer_.append(table.arrayKey);
  buffer_.append("\":[");
  isFirstArray_ = false;
  isFirstRow_ = true;
}

void Document::addRow(const Table& table, const Statement& statement) {
  std::array<char, 12> digits{};
  const char* const last =
      std::to_chars(digits.data(), digits.data() + digits.size(), statement.integer(0)).ptr;

  buffer_.append(isFirstRow_ ? R"({"id":")" : R"(,{"id":")");
  buffer_.append({digits.data(), last});
  for (std::size_t i = 0; i < table.keys.size(); ++i) {
    buffer_.append(R"(",")");
    buffer_.append(table.keys[i]);
    buffer_.append(R"(":")");
    appendEscaped(buffer_, statement.text(static_cast<int>(i) + 1));
  }
  buffer_.append(R"("})");
  isFirstRow_ = false;
  hasRows_ = true;
}

}  // namespace marbleway
