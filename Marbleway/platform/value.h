#pragma once

#include <atomic>
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

/// Text handed to an operation: absent, or present and possibly empty. It ends at an embedded NUL.
///
/// A view: what it was made from has to live as long as the call that it is handed to.
class Text {
 public:
  ///@{
  /// Made from whatever holds a text; a null pointer and an empty optional are absent.
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

/// An array or a dictionary that values share; never changed once shared.
struct Shared {
  Shared() = default;
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  virtual ~Shared() = default;

  std::atomic<std::size_t> owners{1};
  Shared* next = nullptr;  // the next one waiting to be destroyed
};

template <class T>
struct Holder;

/// Counts the owners of a `Holder<T>`. The last one's end destroys it, without recursion.
template <class T>
class Handle {
 public:
  explicit Handle(T value);
  Handle(const Handle& other) noexcept;
  Handle(Handle&& other) noexcept : held_(std::exchange(other.held_, nullptr)) {}
  Handle& operator=(Handle other) noexcept {
    std::swap(held_, other.held_);
    return *this;
  }
  ~Handle();

  const T& operator*() const noexcept;

 private:
  Holder<T>* held_;
};

}  // namespace detail

/// A JSON-compatible value: null, boolean, 64-bit integer, double, text, array or dictionary.
///
/// Copies share arrays and dictionaries, so copying costs a count, however much a value holds.
class MARBLEWAY_EXPORT Value {
 public:
  Value() noexcept = default;
  /// A boolean.
  template <std::same_as<bool> T>
  Value(T flag) noexcept : data_(flag) {}
  /// An integer beyond 64 signed bits is kept as a double.
  template <std::integral T>
  requires(!std::same_as<T, bool>) Value(T number)
  noexcept {
    if (std::unsigned_integral<T> && static_cast<std::uint64_t>(number) > INT64_MAX) {
      data_ = static_cast<double>(number);
    } else {
      data_ = static_cast<std::int64_t>(number);
    }
  }
  /// A number of any floating type, kept as a double.
  template <std::floating_point T>
  Value(T number) noexcept : data_(static_cast<double>(number)) {}
  /// An absent text is null.
  template <class T>
  requires std::convertible_to<const T&, Text> Value(const T& text) {
    const Text given(text);
    if (!given.isAbsent()) data_.emplace<std::string>(given.view());
  }
  Value(Array array);            ///< Its elements in order.
  Value(Dictionary dictionary);  ///< Its keys in order.

  ///@{
  /// Copies share; what has been moved from is null.
  Value(const Value& other) = default;
  Value(Value&& other) noexcept { data_.swap(other.data_); }
  Value& operator=(Value other) noexcept {
    data_.swap(other.data_);
    return *this;
  }
  ///@}
  ~Value() = default;

  /// True for null, which an absent text is as well.
  bool isNull() const noexcept { return std::holds_alternative<std::monostate>(data_); }

  /// The value of type `bool`, `std::int64_t`, `double`, `std::string`, `Array` or `Dictionary`;
  /// null when it holds another kind.
  template <class T>
  const T* as() const noexcept;

  /// Kind and content. Dictionaries are equal whatever the order of their keys.
  friend bool operator==(const Value& left, const Value& right);

 private:
  using Data = std::variant<std::monostate, bool, std::int64_t, double, std::string,
                            detail::Handle<Array>, detail::Handle<Dictionary>>;
  Data data_;
};

/// Values in order.
class MARBLEWAY_EXPORT Array {
 public:
  Array() noexcept = default;
  /// The values between braces.
  Array(std::initializer_list<Value> values) : values_(values) {}

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
  /// The pairs between braces.
  Dictionary(std::initializer_list<Entry> entries) {
    entries_.reserve(entries.size());
    for (const Entry& entry : entries) set(entry.first, entry.second);
  }

  /// A key ends at an embedded NUL, like every text.
  void set(std::string key, Value value);
  /// The value under `key`; null when there is none. Valid until the dictionary changes.
  const Value* find(std::string_view key) const noexcept;

  ///@{
  /// As in the standard library's containers.
  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  auto begin() const noexcept { return entries_.begin(); }
  auto end() const noexcept { return entries_.end(); }
  ///@}

  /// Equal values under the same keys, in whatever order.
  friend bool operator==(const Dictionary& left, const Dictionary& right);

 private:
  std::optional<std::size_t> position(std::string_view key) const noexcept;

  std::vector<Entry> entries_;
  std::map<std::string, std::size_t, std::less<>> index_;  // filled once looking through is slow
};

/// An exception that the application caught; what is absent is left out of the error's details.
struct ErrorReport {
  std::optional<std::string> name{};    ///< What kind of error it is.
  std::optional<std::string> reason{};  ///< Why it came about.
  /// The frames of the call stack, innermost first.
  std::optional<std::vector<std::uintptr_t>> callStackReturnAddresses{};
  /// A line a frame.
  std::optional<std::vector<std::string>> callStackSymbols{};
  std::optional<Dictionary> userInfo{};  ///< What else is known.
};

/// Reads a JSON text; absent when it is not one, or nests deeper than 512 levels.
MARBLEWAY_EXPORT std::optional<Value> valueFromJSON(std::string_view text);

/// Writes a compact JSON text, invalid UTF-8 replaced by U+FFFD; absent when `value` holds a number
/// that is not finite.
MARBLEWAY_EXPORT std::optional<std::string> toJSON(const Value& value);

namespace detail {

template <class T>
struct Holder : Shared {
  explicit Holder(T held) : value(std::move(held)) {}
  T value;
};

/// Destroys what has no owner left, and all that only it owned, one after another. Thread: any.
MARBLEWAY_EXPORT void retire(Shared* last) noexcept;

template <class T>
Handle<T>::Handle(T value) : held_(std::make_unique<Holder<T>>(std::move(value)).release()) {}

template <class T>
Handle<T>::Handle(const Handle& other) noexcept : held_(other.held_) {
  if (held_ != nullptr) held_->owners.fetch_add(1, std::memory_order_relaxed);
}

template <class T>
Handle<T>::~Handle() {
  if (held_ != nullptr && held_->owners.fetch_sub(1) == 1) retire(held_);
}

template <class T>
const T& Handle<T>::operator*() const noexcept {
  return held_->value;
}

}  // namespace detail

inline Value::Value(Array array) : data_(detail::Handle<Array>(std::move(array))) {}
inline Value::Value(Dictionary dictionary)
    : data_(detail::Handle<Dictionary>(std::move(dictionary))) {}

template <class T>
const T* Value::as() const noexcept {
  if constexpr (std::same_as<T, Array> || std::same_as<T, Dictionary>) {
    const auto* handle = std::get_if<detail::Handle<T>>(&data_);
    return handle != nullptr ? &**handle : nullptr;
  } else {
    return std::get_if<T>(&data_);
  }
}

}  // namespace marbleway
