#include "Marbleway/upload/document.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "Marbleway/platform/utf8.h"

namespace marbleway {
namespace {

// The longest thing that one byte of text turns into: \u001f.
constexpr std::size_t kMaxEscapeLength = 6;

constexpr std::uint64_t eightTimes(unsigned char byte) { return 0x0101010101010101U * byte; }

// Each of these sets the top bit of the bytes in question, and no other bit.
constexpr std::uint64_t zeroBytes(std::uint64_t eight) {
  return ~(((eight & eightTimes(0x7F)) + eightTimes(0x7F)) | eight | eightTimes(0x7F));
}
constexpr std::uint64_t quotesAndBackslashes(std::uint64_t eight) {
  return zeroBytes(eight ^ eightTimes('"')) | zeroBytes(eight ^ eightTimes('\\'));
}
// Exact for its lowest bit; those above may be set in vain, by a borrow from below.
constexpr std::uint64_t controlsAndBeyondASCII(std::uint64_t eight) {
  return ((eight - eightTimes(0x20)) | eight) & eightTimes(0x80);
}

// The number of bytes before the first that is marked, in the order of memory.
std::size_t bytesBefore(std::uint64_t marked) {
  static_assert(std::endian::native == std::endian::little);
  return static_cast<std::size_t>(std::countr_zero(marked)) / 8;
}

// The eight bytes at `in`, of which `left` remain; spaces stand for the missing ones.
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

// Writes eight bytes, a backslash before each that is marked. JSON texts within rows are full of
// quotes, so they are found all at once and only what lies between two of them is walked over.
char* putMarked(char* out, std::uint64_t eight, std::uint64_t marked) {
  std::size_t rest = sizeof eight;
  while (marked != 0) {
    const std::size_t plain = bytesBefore(marked);
    out = put(out, eight) - (sizeof eight - plain);
    *out++ = '\\';
    eight >>= 8 * plain;
    marked >>= 8 * plain;
    marked &= marked - 1;  // the marked byte itself goes first among the rest
    rest -= plain;
  }
  return put(out, eight) - (sizeof eight - rest);
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

// Writes the character at `in` and moves `in` behind it.
char* putCharacter(char* out, const char*& in, const char* end) {
  const std::size_t length = sequenceLength(in, static_cast<std::size_t>(end - in));
  const char* const start = in;
  in += std::max<std::size_t>(length, 1);
  if (length == 1) return putASCII(out, *start);
  return put(out, length > 1 ? std::string_view(start, length) : kReplacement);
}

// The most bytes that `size` bytes turn into, and what is written behind them in passing.
constexpr std::size_t maxEscapedSize(std::size_t size) {
  return size * kMaxEscapeLength + sizeof(std::uint64_t);
}

// Writes `text` escaped and returns where it ends.
char* putEscaped(char* out, std::string_view text) {
  const char* in = text.data();
  const char* const end = in + text.size();
  while (in != end) {
    const auto left = static_cast<std::size_t>(end - in);
    const std::uint64_t eight = eightAt(in, left);
    const std::uint64_t escaped = quotesAndBackslashes(eight);
    const std::uint64_t others = controlsAndBeyondASCII(eight);
    if (others == 0) {
      const std::size_t count = std::min(left, sizeof eight);
      out = putMarked(out, eight, escaped) - (sizeof eight - count);
      in += count;
    } else {
      const std::size_t plain = bytesBefore(escaped | others);
      in += plain;
      out = putCharacter(put(out, eight) - (sizeof eight - plain), in, end);
    }
  }
  return out;
}

}  // namespace

void appendEscaped(platform::Buffer& buffer, std::string_view text) {
  char* const start = buffer.reserve(maxEscapedSize(text.size()));
  buffer.commit(static_cast<std::size_t>(putEscaped(start, text) - start));
}

void Document::beginArray(const Table& table) {
  buffer_.append(isFirstArray_ ? "\"" : ",\"");
  buffer_.append(table.arrayKey);
  buffer_.append("\":[");
  isFirstArray_ = false;
  keyPrefixes_.clear();
}

void Document::beginRows(const Table& table) {
  static_assert(std::ranges::all_of(kTables, [](const Table& any) {
    return std::ranges::all_of(any.keys,
                               [](auto key) { return key.size() <= KeyPrefix::kMaxKeyLength; });
  }));
  for (const std::string_view key : table.keys) {
    KeyPrefix& prefix = keyPrefixes_.emplace_back();
    char* const start = prefix.bytes.data();
    const char* const end = put(put(put(start, R"(",")"), key), R"(":")");
    prefix.size = static_cast<std::size_t>(end - start);
  }
}

void Document::addRow(const Table& table, const Statement& statement) {
  const bool isFirstRow = keyPrefixes_.empty();
  if (isFirstRow) beginRows(table);
  std::array<char, 12> digits{};
  const char* const last =
      std::to_chars(digits.data(), digits.data() + digits.size(), statement.integer(0)).ptr;

  buffer_.append(isFirstRow ? R"({"id":")" : R"(,{"id":")");
  buffer_.append({digits.data(), last});
  for (int column = 1; const KeyPrefix& prefix : keyPrefixes_) {
    const std::string_view value = statement.text(column++);
    char* const start = buffer_.reserve(sizeof prefix.bytes + maxEscapedSize(value.size()));
    std::memcpy(start, prefix.bytes.data(), sizeof prefix.bytes);
    buffer_.commit(static_cast<std::size_t>(putEscaped(start + prefix.size, value) - start));
  }
  buffer_.append(R"("})");
  hasRows_ = true;
}

}  // namespace marbleway
