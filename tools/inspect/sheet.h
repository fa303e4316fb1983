#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace inspect {

enum class Format { table, ndjson, csv };

/// One value of a row: none, a number or a text of any bytes.
using Cell = std::variant<std::monostate, std::int64_t, std::string>;
using Row = std::vector<Cell>;

inline Cell cellOf(std::optional<std::string_view> text) {
  return text ? Cell(std::string(*text)) : Cell();
}

/// Rows under named columns, written as they come. Invalid UTF-8 becomes U+FFFD.
class Sheet {
 public:
  virtual ~Sheet() = default;
  /// Begins a table; an empty title is left out.
  virtual void begin(std::string_view title, std::vector<std::string_view> columns) = 0;
  /// Adds a row of as many cells as there are columns.
  virtual void add(const Row& row) = 0;
  /// Passes on the rows so far.
  virtual void flush() {}
  virtual void end() = 0;
};

/// Format::table: columns as wide as their values, control characters spelled out, "-" for no
/// value; on a terminal the widest columns are cut, so that a row fits in a line. Format::ndjson:
/// an object a line, the title its member "Table". Format::csv (RFC 4180, but lines end in a
/// newline alone): first the columns' names, no title, texts in quotes, nothing for no value.
std::unique_ptr<Sheet> makeSheet(Format format, std::ostream& out);

}  // namespace inspect
