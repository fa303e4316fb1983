#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "export.h"

namespace marbleway {

class Array;
class Dictionary;

/// Text passed to an operation: absent, or present and possibly empty. It ends at an embedded NUL.
///
/// A view in UTF-8: the text that it was made from must exist until the call returns.
class Text {
 public:
  ///@{
  /// Null pointers and empty optionals are absent; every other text is present.
  constexpr Text(std::nullptr_t) noexcept {}
  constexpr Text(std::nullopt_t) noexcept {}
  constexpr Text(std::string_view text) noexcept : view_(text.substr(0, text.find('\0'))) {}
  constexpr Text(const char* text) noexcept {
    if (text != nullptr) view_ = std::string_view(text);
  }
  Text(const std::string& text) noexcept : Text(std::string_view(text)) {}
  Text(const std::optional<std::string>& text) noexcept {
    if (text) *this = Text(*text);
  }
  ///@}

  /// True for an absent text; an empty one is present.
  constexpr bool isAbsent() const noexcept { return !view_; }
  /// True for an absent or an empty text.
  constexpr bool isMissing() const noexcept { return !view_ || view_->empty(); }
  /// The bytes, none when absent.
  constexpr std::string_view view() const noexcept { return view_.value_or(std::string_view()); }
  /// A copy that outlives the call; absent when the text is.
  std::optional<std::string> copy() const {
    return view_ ? std::optional<std::string>(*view_) : std::nullopt;
  }

 private:
  std::optional<std::string_view> view_;
};

namespace detail {

/// Moves an array or a dictionary to where copies of a value share it.
MARBLEWAY_EXPORT std::shared_ptr<const Array> share(Array array);
MARBLEWAY_EXPORT std::shared_ptr<const Dictionary> share(Dictionary dictionary);

/// The double with the decimal digits that are the shortest for `number`: 0.1 for 0.1F.
MARBLEWAY_EXPORT double widened(float number) noexcept;

}  // namespace detail

/// A JSON-compatible value: null, boolean, 64-bit integer, double, text, array or dictionary.
///
/// Copies share an array or a dictionary, which never changes: such a copy takes constant time.
/// Depth is limited by memory alone: comparison and destruction use no recursion.
/// Thread: any, for different objects; copies may be used by different threads.
class MARBLEWAY_EXPORT Value {
 public:
  Value() noexcept = default;
  /// A boolean.
  template <std::same_as<bool> T>
  Value(T flag) noexcept : data_(flag) {}
  /// An integer; one above 2^63 - 1 is stored as a double.
  template <std::integral T>
  requires(!std::same_as<T, bool>) Value(T number)
  noexcept {
    if (std::unsigned_integral<T> && static_cast<std::uint64_t>(number) > INT64_MAX) {
      data_ = static_cast<double>(number);
    } else {
      data_ = static_cast<std::int64_t>(number);
    }
  }
  /// A number of any floating type, stored as a double. A `float` gives the double with the same
  /// shortest decimal digits: `Value(0.1F) == Value(0.1)`.
  template <std::floating_point T>
  Value(T number) noexcept {
    if constexpr (std::same_as<T, float>) {
      data_ = detail::widened(number);
    } else {
      data_ = static_cast<double>(number);
    }
  }
  /// A copy of a text; null for an absent one.
  template <class T>
  requires std::convertible_to<const T&, Text> Value(const T& text) {
    const Text given(text);
    if (!given.isAbsent()) data_.emplace<std::string>(given.view());
  }
  Value(Array array);            ///< Its elements in order.
  Value(Dictionary dictionary);  ///< Its keys in order.

  ///@{
  /// A value that has been moved from is null.
  Value(const Value& other) {
    // The variant's own copy destroys what it has not made when there is no memory for the text.
    if (const auto* text = std::get_if<std::string>(&other.data_)) {
      data_.emplace<std::string>(*text);
    } else {
      data_ = other.data_;
    }
  }
  Value(Value&& other) noexcept { data_.swap(other.data_); }
  Value& operator=(Value other) noexcept {
    data_.swap(other.data_);
    return *this;
  }
  ///@}
  ~Value() = default;

  /// True for null.
  bool isNull() const noexcept { return std::holds_alternative<std::monostate>(data_); }

  /// The content as `bool`, `std::int64_t`, `double`, `std::string`, `Array` or `Dictionary`; a
  /// null pointer when the value holds another kind. Valid until the value changes.
  template <class T>
  const T* as() const noexcept;

  /// Compares kind and content: 1 and 1.0 differ. The order of a dictionary's keys does not count.
  friend bool operator==(const Value& left, const Value& right);

 private:
  using Data = std::variant<std::monostate, bool, std::int64_t, double, std::string,
                            std::shared_ptr<const Array>, std::shared_ptr<const Dictionary>>;
  Data data_;
};

namespace detail {

/// What an array takes its elements from; a text is no such range.
template <class Range>
concept RangeOfValues = !std::convertible_to<const Range&, Text> && requires(const Range& range) {
  Value(*range.begin());
};

/// What a dictionary takes its pairs from.
template <class Range>
concept RangeOfEntries = requires(const Range& range) {
  std::string(range.begin()->first);
  Value(range.begin()->second);
};

}  // namespace detail

/// Values in order.
class MARBLEWAY_EXPORT Array {
 public:
  Array() noexcept = default;
  /// `Array{1, "two", 3.0}`.
  Array(std::initializer_list<Value> values) : values_(values) {}
  /// The elements of a range, such as a std::vector<std::string>: `Array(names)`.
  template <detail::RangeOfValues Range>
  explicit Array(const Range& range) {
    for (const auto& each : range) push_back(each);
  }

  /// Adds a value at the end.
  void push_back(Value value) { values_.push_back(std::move(value)); }
  ///@{
  /// As in the standard library's containers.
  std::size_t size() const noexcept { return values_.size(); }
  bool empty() const noexcept { return values_.empty(); }
  const Value& operator[](std::size_t index) const { return values_[index]; }
  auto begin() const noexcept { return values_.begin(); }
  auto end() const noexcept { return values_.end(); }
  ///@}

  /// Equal values in the same order.
  friend bool operator==(const Array& left, const Array& right);

 private:
  std::vector<Value> values_;
};

/// Text keys to values, in order of insertion; a later equal key replaces the earlier value.
class MARBLEWAY_EXPORT Dictionary {
 public:
  /// A key and its value.
  using Entry = std::pair<std::string, Value>;

  Dictionary() noexcept = default;
  /// `Dictionary{{"Value", 12.5}, {"tags", Array{"a", "b"}}}`.
  Dictionary(std::initializer_list<Entry> entries) {
    entries_.reserve(entries.size());
    for (const Entry& entry : entries) set(entry.first, entry.second);
  }

  /// The pairs of a range, such as a std::map<std::string, double>: `Dictionary(prices)`.
  template <detail::RangeOfEntries Range>
  explicit Dictionary(const Range& range) {
    for (const auto& [key, value] : range) set(std::string(key), value);
  }

  /// Adds a value or replaces the one under an equal key. A key ends at an embedded NUL.
  void set(std::string key, Value value);
  /// The value under `key`; a null pointer when there is none. Valid until the dictionary changes.
  const Value* find(std::string_view key) const noexcept;

  ///@{
  /// As in the standard library's containers.
  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  auto begin() const noexcept { return entries_.begin(); }
  auto end() const noexcept { return entries_.end(); }
  ///@}

  /// Equal values under the same keys, in any order.
  friend bool operator==(const Dictionary& left, const Dictionary& right);

 private:
  std::optional<std::size_t> position(std::string_view key) const noexcept;

  std::vector<Entry> entries_;
  std::map<std::string, std::size_t, std::less<>> index_;  // empty while a linear search is fast
};

/// An exception that the application caught. Absent members are left out of the error's details.
struct ErrorReport {
  std::optional<std::string> name{};    ///< The exception's type.
  std::optional<std::string> reason{};  ///< What happened.
  /// Return addresses, innermost first.
  std::optional<std::vector<std::uintptr_t>> callStackReturnAddresses{};
  /// One text for each address.
  std::optional<std::vector<std::string>> callStackSymbols{};
  std::optional<Dictionary> userInfo{};  ///< Further details.
};

/// Reads a JSON text in UTF-8. Absent when the text is not JSON, nests deeper than 512 levels or
/// holds a number beyond the range of a double. Throws std::bad_alloc.
MARBLEWAY_EXPORT std::optional<Value> valueFromJSON(std::string_view text);

/// Writes a compact JSON text. Numbers have the form of ECMAScript's number-to-string (100000,
/// 1e-7, 1e+21); invalid UTF-8 is replaced by U+FFFD. Absent when `value` holds a number that is
/// not finite. Throws std::bad_alloc.
MARBLEWAY_EXPORT std::optional<std::string> toJSON(const Value& value);

inline Value::Value(Array array) : data_(detail::share(std::move(array))) {}
inline Value::Value(Dictionary dictionary) : data_(detail::share(std::move(dictionary))) {}

template <class T>
const T* Value::as() const noexcept {
  if constexpr (std::same_as<T, Array> || std::same_as<T, Dictionary>) {
    const auto* shared = std::get_if<std::shared_ptr<const T>>(&data_);
    return shared != nullptr ? shared->get() : nullptr;
  } else {
    return std::get_if<T>(&data_);
  }
}

}  // namespace marbleway
