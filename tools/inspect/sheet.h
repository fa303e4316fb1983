#pragma once

#include <cstdint>
#include <memory>
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

/// Rows under named columns, written as they come. Invalid UTF-8 becomes U+FFFD.
class Sheet {
 public:
  virtual ~Sheet() = default;
  /// Begins a table; an empty title is left out.
  virtual void begin(std::string_view title, std::vector<std::string_view> columns) = 0;
  /// Adds a row of as many cells as there are columns.
  virtual void add(const Row& row) = 0;
  virtual void end() = 0;
};

/// As a table for people: aligned by what its first rows need, long values cut, and no control
/// character or reordering of text in it; none is "-". As NDJSON: an object a line, the title its
/// member "Table". As CSV (RFC 4180, but for lines that end in a mere newline): the columns' names
/// first, titles left out, an empty text in quotes and none without.
std::unique_ptr<Sheet> makeSheet(Format format, std::ostream& out);

/// `text` for one line of a terminal: what would control it is spelled out, as \n or \u009b.
std::string printable(std::string_view text);

}  // namespace inspect
