#pragma once

#include <array>
#include <cstddef>
#include <string_view>
#include <vector>

#include "Marbleway/platform/buffer.h"
#include "Marbleway/store/statement.h"

namespace marbleway {

/// The batch document, written text by text while the rows are read: no row outlives its writing.
///
/// {"BatchData":{"Events":[{"id":"17","SessionID":"...", ...}, ...], ...}}, compact, valid UTF-8.
class Document {
 public:
  Document() { buffer_.append(R"({"BatchData":{)"); }

  /// Opens the array of `table`, whose rows follow.
  void beginArray(const Table& table);
  /// Writes the row at which `statement` stands.
  void addRow(const Table& table, const Statement& statement);
  void endArray() { buffer_.append("]"); }

  bool hasRows() const { return hasRows_; }
  /// Closes the document and hands it out.
  platform::Buffer take() {
    buffer_.append("}}");
    return std::move(buffer_);
  }

 private:
  /// What stands before a value: ","SessionID":". Copied whole, since a known size is fast.
  struct KeyPrefix {
    static constexpr std::size_t kMaxKeyLength = 34;

    std::array<char, kMaxKeyLength + 6> bytes{};
    std::size_t size = 0;
  };

  void beginRows(const Table& table);

  platform::Buffer buffer_;
  std::vector<KeyPrefix> keyPrefixes_;  // of the array's rows, once it has one
  bool hasRows_ = false;
  bool isFirstArray_ = true;
};

/// Appends `text` as the inside of a JSON string: quotes, backslashes and controls escaped, each
/// byte that belongs to no valid UTF-8 sequence replaced by U+FFFD.
void appendEscaped(platform::Buffer& buffer, std::string_view text);

}  // namespace marbleway
