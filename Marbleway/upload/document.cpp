#include "Marbleway/upload/document.h"

#include <array>
#include <charconv>

#include "Marbleway/platform/escape.h"

namespace marbleway {

void Document::beginArray(const Table& table) {
  buffer_.append(isFirstArray_ ? "\"" : ",\"");
  buffer_.append(table.arrayKey);
  buffer_.append("\":[");
  isFirstArray_ = false;
  isFirstRow_ = true;
  keyPrefixes_.clear();
  for (const std::string_view key : table.keys) {
    keyPrefixes_.push_back(std::string(R"(",")").append(key).append(R"(":")"));
  }
}

void Document::beginRow(std::int32_t id) {
  std::array<char, 12> digits{};
  const char* const last = std::to_chars(digits.data(), digits.data() + digits.size(), id).ptr;
  buffer_.append(isFirstRow_ ? R"({"id":")" : R"(,{"id":")");
  buffer_.append({digits.data(), last});
}

void Document::endRow() {
  buffer_.append(R"("})");
  isFirstRow_ = false;
  ++rows_;
}

void Document::addRow(const Statement& statement) {
  beginRow(statement.integer(0));
  for (int column = 1; const std::string& prefix : keyPrefixes_) {
    buffer_.append(prefix);
    appendEscaped(buffer_, statement.text(column++));
  }
  endRow();
}

bool Document::addRow(const Table& table, LongRow& row) {
  const std::size_t start = buffer_.size();
  beginRow(static_cast<std::int32_t>(row.id()));
  for (std::size_t i = 0; i < table.columns.size(); ++i) {
    buffer_.append(keyPrefixes_[i]);
    const bool isRead =
        row.read(table.columns[i], [&](std::string_view piece) { appendEscaped(buffer_, piece); });
    if (!isRead) {
      buffer_.truncate(start);
      return false;
    }
  }
  endRow();
  return true;
}

}  // namespace marbleway
