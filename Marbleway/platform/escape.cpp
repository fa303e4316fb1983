#include "Marbleway/platform/escape.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#include "Marbleway/platform/utf8.h"

namespace marbleway {
namespace {

// The longest escape of one byte: \u001F.
constexpr std::size_t kMaxEscapeLength = 6;
// Bytes escaped at a time. A longer text is escaped in pieces, so that the space reserved for the
// worst case does not grow with the text.
constexpr std::size_t kMaxPiece = 4096;
// The block operations below number bytes from the lowest bits upwards.
constexpr bool kUsesBlocks = std::endian::native == std::endian::little;

constexpr std::uint64_t eightTimes(unsigned char byte) { return 0x0101010101010101U * byte; }

// Each of these sets the top bit of the bytes that it names, and no other bit.
constexpr std::uint64_t zeroBytes(std::uint64_t eight) {
  return ~(((eight & eightTimes(0x7F)) + eightTimes(0x7F)) | eight | eightTimes(0x7F));
}
constexpr std::uint64_t quotesAndBackslashes(std::uint64_t eight) {
  return zeroBytes(eight ^ eightTimes('"')) | zeroBytes(eight ^ eightTimes('\\'));
}
// Exact for its lowest bit. Higher bits can be set falsely, by a borrow from below.
constexpr std::uint64_t controlsAndBeyondASCII(std::uint64_t eight) {
  return ((eight - eightTimes(0x20)) | eight) & eightTimes(0x80);
}

// The number of bytes before the first marked one.
std::size_t bytesBefore(std::uint64_t marked) {
  return static_cast<std::size_t>(std::countr_zero(marked)) / 8;
}

// The eight bytes at `in`. Where fewer than eight are left, spaces follow them.
std::uint64_t eightAt(const char* in, std::size_t left) {
  std::uint64_t eight = eightTimes(' ');
  if (left >= sizeof eight) {
    std::memcpy(&eight, in, sizeof eight);
  } else {
    std::memcpy(&eight, in, left);
  }
  return eight;
}

char* put(char* out, std::string_view bytes) {
  std::memcpy(out, bytes.data(), bytes.size());
  return out + bytes.size();
}

char* put(char* out, std::uint64_t eight) {
  std::memcpy(out, &eight, sizeof eight);
  return out + sizeof eight;
}

// Writes eight bytes, a backslash before each marked one. Columns that hold JSON are full of
// quotes, so one pass over a block escapes all of them.
char* putMarked(char* out, std::uint64_t eight, std::uint64_t marked) {
  std::size_t rest = sizeof eight;
  while (marked != 0) {
    const std::size_t plain = bytesBefore(marked);
    out = put(out, eight) - (sizeof eight - plain);
    *out++ = '\\';
    eight >>= 8 * plain;
    marked >>= 8 * plain;
    marked &= marked - 1;  // the marked byte is now the first of the rest
    rest -= plain;
  }
  return put(out, eight) - (sizeof eight - rest);
}

// Writes the escape of an ASCII byte, or the byte itself.
char* putASCII(char* out, char byte) {
  constexpr std::string_view kHex = "0123456789ABCDEF";
  switch (byte) {
    case '"':
      return put(out, R"(\")");
    case '\\':
      return put(out, R"(\\)");
    case '\b':
      return put(out, R"(\b)");
    case '\f':
      return put(out, R"(\f)");
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

// Writes the character at `in` and moves `in` behind it.
char* putCharacter(char* out, const char*& in, const char* end) {
  const std::size_t length = sequenceLength(in, static_cast<std::size_t>(end - in));
  const char* const start = in;
  in += std::max<std::size_t>(length, 1);
  if (length == 1) return putASCII(out, *start);
  return put(out, length > 1 ? std::string_view(start, length) : kReplacement);
}

// The space that `size` bytes need: their escapes, and the rest of a block written behind them.
constexpr std::size_t maxEscapedSize(std::size_t size) {
  return size * kMaxEscapeLength + sizeof(std::uint64_t);
}

// Escapes the block at `in`, up to its first byte that is not plain ASCII, and that byte's
// character.
char* putBlock(char* out, const char*& in, const char* end) {
  const auto left = static_cast<std::size_t>(end - in);
  const std::uint64_t eight = eightAt(in, left);
  const std::uint64_t escaped = quotesAndBackslashes(eight);
  const std::uint64_t others = controlsAndBeyondASCII(eight);
  if (others == 0) {
    const std::size_t count = std::min(left, sizeof eight);
    in += count;
    return putMarked(out, eight, escaped) - (sizeof eight - count);
  }
  const std::size_t plain = bytesBefore(escaped | others);
  in += plain;
  return putCharacter(put(out, eight) - (sizeof eight - plain), in, end);
}

// Writes `text` escaped and returns the end of what was written.
char* putEscaped(char* out, std::string_view text) {
  const char* in = text.data();
  const char* const end = in + text.size();
  while (in != end) {
    if constexpr (kUsesBlocks) {
      out = putBlock(out, in, end);
    } else {
      out = putCharacter(out, in, end);
    }
  }
  return out;
}

}  // namespace

void appendEscaped(platform::Buffer& buffer, std::string_view text) {
  while (!text.empty()) {
    const std::size_t size = text.size() > kMaxPiece ? cutPosition(text, kMaxPiece) : text.size();
    const std::string_view piece = text.substr(0, size);
    char* const start = buffer.reserve(maxEscapedSize(piece.size()));
    buffer.commit(static_cast<std::size_t>(putEscaped(start, piece) - start));
    text.remove_prefix(piece.size());
  }
}

}  // namespace marbleway
