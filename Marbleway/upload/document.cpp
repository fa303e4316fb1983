#include "Marbleway/upload/document.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "platform/utf8.h"

namespace marbleway {
namespace {

// The longest thing that one byte of text turns into: \u001f.
constexpr std::size_t kLongestEscape = 6;

constexpr std::uint64_t eightTimes(unsigned char byte) { return 0x0101010101010101U * byte; }

// True when none of the eight bytes is a control, a quote, a backslash or beyond ASCII. A byte that
// differs from zero keeps its top bit clear in `(x - 1) & ~x`, unless a zero byte stands below it.
bool areAllPlain(std::uint64_t eight) {
  const auto holdsZero = [](std::uint64_t x) { return (x - eightTimes(1)) & ~x; };
  const std::uint64_t controls = (eight - eightTimes(0x20)) & ~eight;
  return ((eight | controls | holdsZero(eight ^ eightTimes('"')) |
           holdsZero(eight ^ eightTimes('\\'))) &
          eightTimes(0x80)) == 0;
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
    const auto left = static_cast<std::size_t>(end - in);
    std::uint64_t eight = 0;
    if (left >= sizeof eight) {
      std::memcpy(&eight, in, sizeof eight);
      if (areAllPlain(eight)) {
        std::memcpy(out, &eight, sizeof eight);
        in += sizeof eight;
        out += sizeof eight;
        continue;
      }
    }
    if (const std::size_t length = sequenceLength(in, left); length == 1) {
      out = putASCII(out, *in++);
    } else if (length > 1) {
      out = put(out, {in, length});
      in += length;
    } else {
      out = put(out, kReplacement);
      ++in;
    }
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

void Document::addMember(std::string_view key, std::string_view text) {
  buffer_.append(key);
  buffer_.append("\":\"");
  appendEscaped(buffer_, text);
}

void Document::addRow(const Table& table, const Statement& statement) {
  std::array<char, 12> digits{};
  const char* const last =
      std::to_chars(digits.data(), digits.data() + digits.size(), statement.integer(0)).ptr;

  buffer_.append(isFirstRow_ ? "{\"" : ",{\"");
  addMember("id", {digits.data(), last});
  for (std::size_t i = 0; i < table.keys.size(); ++i) {
    buffer_.append("\",\"");
    addMember(table.keys[i], statement.text(static_cast<int>(i) + 1));
  }
  buffer_.append("\"}");
  isFirstRow_ = false;
  hasRows_ = true;
}

}  // namespace marbleway
