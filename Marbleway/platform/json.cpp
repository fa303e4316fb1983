#include "Marbleway/platform/json.h"

#include <rapidjson/reader.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "Marbleway/platform/buffer.h"
#include "Marbleway/platform/escape.h"
#include "Marbleway/platform/utf8.h"

namespace marbleway {
namespace {

namespace rj = rapidjson;

constexpr std::size_t kMaxDepth = 512;

// Memory for RapidJSON, whose own allocator returns null pointers when there is none.
struct ThrowingAllocator {
  static void* Malloc(std::size_t size) { return Realloc(nullptr, 0, size); }
  static void* Realloc(void* block, std::size_t /*oldSize*/, std::size_t size) {
    if (size == 0) {
      Free(block);
      return nullptr;
    }
    void* const moved = std::realloc(block, size);
    if (moved == nullptr) throw std::bad_alloc();
    return moved;
  }
  static void Free(void* block) noexcept { std::free(block); }
};

// Whether a number that no double holds is tiny, not huge: by the power of ten of its first digit.
bool isTiny(std::string_view number) {
  const std::size_t mark = std::min(number.find_first_of("eE"), number.size());
  const std::size_t point = std::min(number.find('.'), mark);
  std::int64_t power = 0;
  if (mark < number.size()) {
    const std::string_view exponent = number.substr(mark + (number[mark + 1] == '+' ? 2 : 1));
    const char* const end = exponent.data() + exponent.size();
    if (std::from_chars(exponent.data(), end, power).ec != std::errc()) return exponent[0] == '-';
  }
  const std::size_t first = number.find_first_of("123456789");
  return power + static_cast<std::int64_t>(point) < static_cast<std::int64_t>(first);
}

// Builds a value from the reader's events. Nesting costs no stack.
class Builder : public rj::BaseReaderHandler<rj::UTF8<>, Builder> {
 public:
  Value take() { return std::move(root_); }

  bool Null() { return add(nullptr); }
  bool Bool(bool flag) { return add(flag); }
  bool RawNumber(const char* text, rj::SizeType length, bool /*copy*/) {
    const char* const end = text + length;
    std::int64_t integer = 0;
    const auto [last, error] = std::from_chars(text, end, integer);
    if (error == std::errc() && last == end) return add(integer);
    double real = 0;
    if (std::from_chars(text, end, real).ec == std::errc()) return add(real);
    return isTiny({text, length}) && add(0.0);
  }
  bool String(const char* text, rj::SizeType length, bool /*copy*/) {
    return isValid({text, length}) && add(std::string_view(text, length));
  }
  bool Key(const char* text, rj::SizeType length, bool /*copy*/) {
    open_.back().key.assign(text, length);
    return isValid({text, length});
  }
  bool StartObject() { return enter(true); }
  bool EndObject(rj::SizeType /*members*/) { return leave(); }
  bool StartArray() { return enter(false); }
  bool EndArray(rj::SizeType /*elements*/) { return leave(); }

 private:
  struct Level {
    bool isObject;
    Dictionary dictionary;
    Array array;
    std::string key;  // of the object's next member
  };

  // The reader accepts the second half of a surrogate pair without the first.
  static bool isValid(std::string_view text) { return validPrefix(text) == text.size(); }

  bool enter(bool isObject) {
    if (open_.size() == kMaxDepth) return false;
    open_.push_back({isObject, {}, {}, {}});
    return true;
  }

  bool leave() {
    Level ended = std::move(open_.back());
    open_.pop_back();
    return ended.isObject ? add(std::move(ended.dictionary)) : add(std::move(ended.array));
  }

  bool add(Value value) {
    if (open_.empty()) {
      root_ = std::move(value);
    } else if (Level& level = open_.back(); level.isObject) {
      level.dictionary.set(std::move(level.key), std::move(value));
    } else {
      level.array.push_back(std::move(value));
    }
    return true;
  }

  Value root_;
  std::vector<Level> open_;
};

enum class Layout { compact, pretty };

// Writes a value as JSON. Nesting costs no stack.
class Writer {
 public:
  explicit Writer(Layout layout) : isPretty_(layout == Layout::pretty) {}

  // Absent when `root` holds a number that is not finite.
  template <class Root>
  std::optional<std::string> write(const Root& root) {
    bool isWritten = begin(root);
    while (isWritten && !open_.empty()) isWritten = advance();
    return isWritten ? std::optional<std::string>(out_.view()) : std::nullopt;
  }

 private:
  struct Level {
    const Array* array;            // one of the two
    const Dictionary* dictionary;  // is null
    std::size_t next = 0;          // the index of the next element
  };

  void text(std::string_view text) {
    out_.append("\"");
    appendEscaped(out_, text);
    out_.append("\"");
  }

  bool begin(const Value& value) {
    if (const auto* dictionary = value.as<Dictionary>()) return begin(*dictionary);
    if (const auto* array = value.as<Array>()) {
      out_.append("[");
      open_.push_back({array, nullptr});
      return true;
    }
    if (const auto* content = value.as<std::string>()) {
      text(*content);
      return true;
    }
    const auto* real = value.as<double>();
    if (real != nullptr && !std::isfinite(*real)) return false;
    out_.append(scalar(value));
    return true;
  }
  bool begin(const Dictionary& dictionary) {
    out_.append("{");
    open_.push_back({nullptr, &dictionary});
    return true;
  }

  static std::string scalar(const Value& value) {
    if (const auto* flag = value.as<bool>()) return *flag ? "true" : "false";
    if (const auto* integer = value.as<std::int64_t>()) return std::to_string(*integer);
    if (const auto* real = value.as<double>()) return json::textOf(*real);
    return "null";
  }

  // Writes the innermost level's next element, or its end.
  bool advance() {
    Level& level = open_.back();
    const std::size_t size =
        level.array != nullptr ? level.array->size() : level.dictionary->size();
    if (level.next == size) {
      const std::string_view bracket = level.array != nullptr ? "]" : "}";
      open_.pop_back();
      if (size > 0) breakLine();
      out_.append(bracket);
      return true;
    }
    if (level.next > 0) out_.append(",");
    breakLine();
    const std::size_t index = level.next++;
    if (level.array != nullptr) return begin((*level.array)[index]);
    const auto& [key, value] = level.dictionary->begin()[static_cast<std::ptrdiff_t>(index)];
    text(key);
    out_.append(isPretty_ ? ": " : ":");
    return begin(value);
  }

  void breakLine() {
    if (isPretty_) out_.append(std::string("\n").append(4 * open_.size(), ' '));
  }

  const bool isPretty_;
  platform::Buffer out_;
  std::vector<Level> open_;
};

}  // namespace

std::optional<Value> valueFromJSON(std::string_view text) {
  // The numbers are read here: the reader takes "0e42" for another number than 0.
  constexpr unsigned kFlags = rj::kParseIterativeFlag | rj::kParseNumbersAsStringsFlag;
  rj::MemoryStream stream(text.data(), text.size());
  rj::GenericReader<rj::UTF8<>, rj::UTF8<>, ThrowingAllocator> reader;
  Builder builder;
  if (!reader.Parse<kFlags>(stream, builder)) return std::nullopt;
  if (stream.Tell() != text.size()) return std::nullopt;  // the reader stops at a NUL
  return builder.take();
}

std::optional<std::string> toJSON(const Value& value) {
  return Writer(Layout::compact).write(value);
}

namespace json {

std::optional<std::string> toJSON(const Dictionary& dictionary) {
  return Writer(Layout::compact).write(dictionary);
}

std::optional<std::string> toPrettyJSON(const Value& value) {
  return Writer(Layout::pretty).write(value);
}

std::string textOf(double number) {
  if (std::isnan(number)) return "NaN";
  if (std::isinf(number)) return number < 0 ? "-Infinity" : "Infinity";
  if (number == 0) return "0";
  if (number < 0) return textOf(-number).insert(0, 1, '-');

  std::array<char, 32> scientific{};  // 1.25e+02
  const auto written = std::to_chars(scientific.data(), scientific.data() + scientific.size(),
                                     number, std::chars_format::scientific);
  std::string digits(scientific.data(), written.ptr);
  const std::size_t mark = digits.find('e');
  int exponent = 0;
  const std::size_t sign = digits[mark + 1] == '+' ? 1 : 0;  // `from_chars` refuses "+"
  std::from_chars(digits.data() + mark + 1 + sign, digits.data() + digits.size(), exponent);
  digits.resize(mark);
  if (exponent < -6 || exponent >= 21) {
    return digits.append(exponent < 0 ? "e" : "e+").append(std::to_string(exponent));
  }
  if (digits.size() > 1) digits.erase(1, 1);  // the point
  if (exponent < 0) return digits.insert(0, "0.00000", static_cast<std::size_t>(1 - exponent));
  const auto whole = static_cast<std::size_t>(exponent) + 1;  // digits before the point
  if (digits.size() <= whole) return digits.append(whole - digits.size(), '0');
  return digits.insert(whole, 1, '.');
}

}  // namespace json
}  // namespace marbleway
