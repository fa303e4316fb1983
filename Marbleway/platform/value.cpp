#include "Marbleway/platform/value.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace marbleway {
namespace {

// From this number of keys on, a dictionary has an index.
constexpr std::size_t kIndexedSize = 16;

// Pairs still to be compared. A list, so that nesting costs no stack.
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
namespace {

// An array or a dictionary that values share.
struct Node {
  Node() = default;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  virtual ~Node() = default;

  Node* next = nullptr;  // in the list of nodes to destroy
};

template <class T>
struct Holder : Node {
  explicit Holder(T content) : value(std::move(content)) {}
  T value;
};

// Destroys a node that has no owner. Nodes that lose their last owner meanwhile are destroyed after
// it, not within: nesting costs no stack.
struct Destroy {
  void operator()(Node* node) const noexcept {
    static thread_local Node* list = nullptr;
    static thread_local bool isDestroying = false;

    node->next = std::exchange(list, node);
    if (isDestroying) return;
    isDestroying = true;
    while (list != nullptr) {
      const std::unique_ptr<Node> first(std::exchange(list, list->next));
    }
    isDestroying = false;
  }
};

template <class T>
std::shared_ptr<const T> shareContent(T content) {
  std::unique_ptr<Holder<T>, Destroy> holder(
      std::make_unique<Holder<T>>(std::move(content)).release());
  const T* const value = &holder->value;
  return {std::shared_ptr<const Node>(std::move(holder)), value};
}

}  // namespace

std::shared_ptr<const Array> share(Array array) { return shareContent(std::move(array)); }
std::shared_ptr<const Dictionary> share(Dictionary dictionary) {
  return shareContent(std::move(dictionary));
}

double widened(float number) noexcept {
  std::array<char, 16> digits{};  // -1.17549435e-38 is the longest
  const auto written = std::to_chars(digits.data(), digits.data() + digits.size(), number,
                                     std::chars_format::scientific);
  double result = number;
  std::from_chars(digits.data(), written.ptr, result);
  return result;
}

}  // namespace detail
}  // namespace marbleway
