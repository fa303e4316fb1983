#pragma once

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tools/collector/refusal.h"

namespace collector {

/// How every document is read: decoded in place, never deeper than the reader's own heap, and
/// refused for bytes that are not UTF-8.
inline constexpr unsigned kStrictReading = rapidjson::kParseInsituFlag |
                                           rapidjson::kParseIterativeFlag |
                                           rapidjson::kParseValidateEncodingFlag;

/// Refuses a document that is not JSON, or that goes on after a NUL byte, where the reader stops.
inline void requireJson(const rapidjson::ParseResult& result, std::size_t read, std::size_t size) {
  if (result.IsError()) {
    throw Refusal(400, std::string("byte ")
                           .append(std::to_string(result.Offset()))
                           .append(": ")
                           .append(rapidjson::GetParseError_En(result.Code())));
  }
  if (read != size) throw Refusal(400, "byte " + std::to_string(read) + ": NUL after the document");
}

/// Parses `text` in place, which the document then points into; throws a Refusal.
inline void parseStrictly(std::string& text, rapidjson::Document& document) {
  rapidjson::InsituStringStream stream(text.data());
  document.ParseStream<kStrictReading>(stream);
  requireJson(document, stream.Tell(), text.size());
}

inline std::string_view textOf(const rapidjson::Value& value) {
  return {value.GetString(), value.GetStringLength()};
}

/// The members of one JSON object, which must have exactly the keys it is known to have.
class Members {
 public:
  Members() = default;
  explicit Members(std::span<const std::string_view> known) : known_(known) {}

  /// The position of `key` among the known ones; refuses an unknown one and one given twice.
  /// `place()` names the object, and is called only then.
  std::size_t admit(std::string_view key, const auto& place) {
    const auto found = std::find(known_.begin(), known_.end(), key);
    if (found == known_.end()) refuse(key, "is not known", place());
    const auto position = static_cast<std::size_t>(found - known_.begin());
    if (has(position)) refuse(key, "is given twice", place());
    given_ |= std::uint32_t{1} << position;
    return position;
  }

  /// Refuses an object that ends before it had all its keys.
  void requireAll(const auto& place) const {
    for (std::size_t i = 0; i < known_.size(); ++i) {
      if (!has(i)) refuse(known_[i], "is missing", place());
    }
  }

 private:
  [[noreturn]] static void refuse(std::string_view key, const char* fault,
                                  const std::string& place) {
    throw Refusal(400, place + ": key " + inQuotes(key) + " " + fault);
  }

  bool has(std::size_t position) const { return ((given_ >> position) & 1U) != 0; }

  std::span<const std::string_view> known_;  // at most 32
  std::uint32_t given_ = 0;                  // one bit a key
};

}  // namespace collector
