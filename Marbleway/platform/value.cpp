#include "Marbleway/platform/value.h"

#include <algorithm>

namespace marbleway {
namespace {

// From this many keys on, a dictionary looks them up in an index.
constexpr std::size_t kIndexedSize = 16;

// Pairs still to be compared: a list of its own, so that nesting costs no stack.
using Pairs = std::vector<std::pair<const Value*, const Value*>>;

bool matches(const Array& left, const Array& right, Pairs& open) {
  if (left.size() != right.size()) return false;
  for (std::size_t i = 0; i < left.size(); ++i) open.emplace_back(&left[i], &right[i]);
  return true;
}

bool matches(const Dictionary& left, const Dictionary& right, Pairs& open) {
  if (left.size() != right.size()) return false;
  return std::all_of(left.begin(), left.end(), [&](const Dictionary::Entry& entry) {
    const Value* other = right.find(entry.first);
    if (other != nullptr) open.emplace_back(&entry.second, other);
    return other != nullptr;
  });
}

template <class T>
bool areEqual(const T& left, const T& right) {
  Pairs open;
  if (!matches(left, right, open)) return false;
  while (!open.empty()) {
    const auto [one, other] = open.back();
    open.pop_back();
    if (const auto* array = one->as<Array>(); array != nullptr && other->as<Array>() != nullptr) {
      if (!matches(*array, *other->as<Array>(), open)) return false;
    } else if (const auto* dictionary = one->as<Dictionary>();
               dictionary != nullptr && other->as<Dictionary>() != nullptr) {
      if (!matches(*dictionary, *other->as<Dictionary>(), open)) return false;
    } else if (!(*one == *other)) {
      return false;
    }
  }
  return true;
}

template <class T>
bool holdEqual(const Value& left, const Value& right) {
  const T* one = left.as<T>();
  const T* other = right.as<T>();
  return one != nullptr && other != nullptr && *one == *other;
}

}  // namespace

bool operator==(const Value& left, const Value& right) {
  return (left.isNull() && right.isNull()) || holdEqual<bool>(left, right) ||
         holdEqual<std::int64_t>(left, right) || holdEqual<double>(left, right) ||
         holdEqual<std::string>(left, right) || holdEqual<Array>(left, right) ||
         holdEqual<Dictionary>(left, right);
}

bool operator==(const Array& left, const Array& right) { return areEqual(left, right); }
bool operator==(const Dictionary& left, const Dictionary& right) { return areEqual(left, right); }

std::optional<std::size_t> Dictionary::position(std::string_view key) const noexcept {
  if (!index_.empty()) {
    const auto found = index_.find(key);
    return found != index_.end() ? std::optional(found->second) : std::nullopt;
  }
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [&](const Entry& entry) { return entry.first == key; });
  if (found == entries_.end()) return std::nullopt;
  return static_cast<std::size_t>(found - entries_.begin());
}

const Value* Dictionary::find(std::string_view key) const noexcept {
  const auto index = position(key);
  return index ? &entries_[*index].second : nullptr;
}

void Dictionary::set(std::string key, Value value) {
  key.resize(std::min(key.size(), key.find('\0')));
  if (const auto index = position(key)) {
    entries_[*index].second = std::move(value);
    return;
  }
  entries_.emplace_back(std::move(key), std::move(value));
  if (entries_.size() < kIndexedSize) return;
  for (std::size_t i = index_.size(); i < entries_.size(); ++i)
    index_.emplace(entries_[i].first, i);
}

namespace detail {

void retire(Shared* last) noexcept {
  static thread_local Shared* waiting = nullptr;
  static thread_local bool destroying = false;

  last->next = waiting;
  waiting = last;
  if (destroying) return;
  destroying = true;
  while (waiting != nullptr) {
    // What only this one owned comes back here and waits its turn.
    const std::unique_ptr<Shared> ended(std::exchange(waiting, waiting->next));
  }
  destroying = false;
}

}  // namespace detail
}  // namespace marbleway
