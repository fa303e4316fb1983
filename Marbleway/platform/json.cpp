#include "Marbleway/platform/json.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>
#include <charconv>
#include <cmath>
#include <utility>
#include <vector>

#include "Marbleway/platform/utf8.h"

namespace marbleway {
namespace {

namespace rj = rapidjson;

constexpr std::size_t kMaxDepth = 512;

// Builds a value from the reader's events, without recursion.
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
    long double wide = 0;  // holds whatever the reader takes; what is too small for it stays 0
    (void)std::from_chars(text, end, wide);
    return std::abs(wide) < 1 && add(0.0);
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

  // The reader lets half of a surrogate pair through where it is the second half.
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

// Writes a value to a RapidJSON writer, without recursion.
template <class Writer>
class Traversal {
 public:
  explicit Traversal(Writer& writer) : writer_(writer) {}

  // False when `root` holds a number that is not finite.
  template <class Root>
  bool write(const Root& root) {
    if (!begin(root)) return false;
    while (!open_.empty()) {
      if (!advance()) return false;
    }
    return true;
  }

 private:
  struct Level {
    const Array* array;            // one of the two
    const Dictionary* dictionary;  // is null
    std::size_t next;              // the element whose turn it is
  };

  void text(std::string_view text) {
    if (validPrefix(text) == text.size()) {
      writer_.String(text.data(), static_cast<rj::SizeType>(text.size()));
    } else {
      this->text(repaired(text));
    }
  }

  bool number(double number) {
    const std::string shortest = json::textOf(number);
    return std::isfinite(number) &&
           writer_.RawValue(shortest.data(), shortest.size(), rj::kNumberType);
  }

  bool begin(const Value& value) {
    if (const auto* flag = value.as<bool>()) return writer_.Bool(*flag);
    if (const auto* integer = value.as<std::int64_t>()) return writer_.Int64(*integer);
    if (const auto* real = value.as<double>()) return number(*real);
    if (const auto* content = value.as<std::string>()) {
      text(*content);
    } else if (const auto* array = value.as<Array>()) {
      writer_.StartArray();
      open_.push_back({array, nullptr, 0});
    } else if (const auto* dictionary = value.as<Dictionary>()) {
      return begin(*dictionary);
    } else {
      writer_.Null();
    }
    return true;
  }

  bool begin(const Dictionary& dictionary) {
    writer_.StartObject();
    open_.push_back({nullptr, &dictionary, 0});
    return true;
  }

  bool advance() {
    Level& level = open_.back();
    const std::size_t index = level.next++;
    if (level.array != nullptr && index < level.array->size()) {
      return begin((*level.array)[index]);
    }
    if (level.dictionary != nullptr && index < level.dictionary->size()) {
      const Dictionary::Entry& entry =
          level.dictionary->begin()[static_cast<std::ptrdiff_t>(index)];
      text(entry.first);
      return begin(entry.second);
    }
    if (level.array != nullptr) {
      writer_.EndArray();
    } else {
      writer_.EndObject();
    }
    open_.pop_back();
    return true;
  }

  Writer& writer_;
  std::vector<Level> open_;
};

template <class Writer, class Root>
std::optional<std::string> written(const Root& value) {
  rj::StringBuffer buffer;
  Writer writer(buffer);
  if (!Traversal<Writer>(writer).write(value)) return std::nullopt;
  return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace

std::optional<Value> valueFromJSON(std::string_view text) {
  // The numbers are read here: the reader takes "0e42" for another number than 0.
  constexpr unsigned kFlags = rj::kParseIterativeFlag | rj::kParseNumbersAsStringsFlag;
  rj::MemoryStream stream(text.data(), text.size());
  rj::Reader reader;
  Builder builder;
  if (!reader.Parse<kFlags>(stream, builder)) return std::nullopt;
  if (stream.Tell() != text.size()) return std::nullopt;  // a NUL ends the text for the reader
  return builder.take();
}

std::optional<std::string> toJSON(const Value& value) {
  return written<rj::Writer<rj::StringBuffer>>(value);
}

namespace json {

std::optional<std::string> toJSON(const Dictionary& dictionary) {
  return written<rj::Writer<rj::StringBuffer>>(dictionary);
}

std::optional<std::string> toPrettyJSON(const Value& value) {
  return written<rj::PrettyWriter<rj::StringBuffer>>(value);
}

std::string textOf(double number) {
  std::array<char, 32> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  return {digits.data(), end};
}

}  // namespace json
}  // namespace marbleway
