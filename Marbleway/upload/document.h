#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Marbleway/platform/buffer.h"
#include "Marbleway/store/statement.h"

namespace marbleway {

/// The batch document, written text by text while the rows are read: rows are never gathered.
///
/// {"BatchData":{"Events":[{"id":"17","SessionID":"...", ...}, ...], ...}}, compact, valid UTF-8.
class Document {
 public:
  Document() { buffer_.append(R"({"BatchData":{)"); }

  /// Opens the array of `table`. Its rows follow.
  void beginArray(const Table& table);
  /// Writes the present row of `statement`, which reads the table of the array.
  void addRow(const Statement& statement);
  /// Writes a row of `table`, which is that of the array. False, and nothing is written, when the
  /// row cannot be read.
  bool addRow(const Table& table, LongRow& row);
  void endArray() { buffer_.append("]"); }

  std::size_t rows() const { return rows_; }
  /// Closes the document and moves it out.
  platform::Buffer take() {
    buffer_.append("}}");
    return std::move(buffer_);
  }

 private:
  void beginRow(std::int32_t id);
  void endRow();

  platform::Buffer buffer_;
  std::vector<std::string> keyPrefixes_;  // one a column: ","SessionID":"
  std::size_t rows_ = 0;
  bool isFirstArray_ = true;
  bool isFirstRow_ = true;
};

}  // namespace marbleway
