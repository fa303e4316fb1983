#include "tools/inspect/sheet.h"

#include <algorithm>
#include <utility>

#include "tools/common/csv.h"
#include "tools/common/json_text.h"
#include "tools/common/terminal.h"
#include "tools/common/text.h"

namespace inspect {
namespace {

constexpr std::size_t kAlignedRows = 200;       // define the columns' widths,
constexpr std::size_t kAlignedBytes = 1 << 20;  // or fewer of so many bytes
constexpr std::size_t kMaxAligned = 48;         // characters, of columns that are not cut
constexpr std::size_t kMinColumn = 8;           // characters, of columns that are
constexpr std::size_t kBetween = 2;             // blanks between two columns

bool isNone(const Cell& cell) { return std::holds_alternative<std::monostate>(cell); }

/// The text of a cell that holds something; of a text its first `maxBytes` bytes.
std::string textOf(const Cell& cell, std::size_t maxBytes = std::string::npos) {
  const auto* number = std::get_if<std::int64_t>(&cell);
  return number != nullptr ? std::to_string(*number)
                           : std::get<std::string>(cell).substr(0, maxBytes);
}

class AlignedTable : public Sheet {
 public:
  AlignedTable(std::ostream& out, std::optional<std::size_t> width) : out_(out), width_(width) {}

  void begin(std::string_view title, std::vector<std::string_view> columns) override {
    isTitled_ = !title.empty();
    if (isTitled_) out_ << title << '\n';
    count_ = 0;
    needed_.assign(columns.size(), 0);
    areNumbers_.assign(columns.size(), false);
    lines_.assign({Line(columns.begin(), columns.end())});
  }
  void add(const Row& row) override {
    Line line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      areNumbers_[i] = std::holds_alternative<std::int64_t>(row[i]);
      line.push_back(isNone(row[i]) ? "-" : shown(row[i]));
      bytes_ += line.back().size();
    }
    ++count_;
    lines_.push_back(std::move(line));
    if (lines_.size() > kAlignedRows || bytes_ > kAlignedBytes) flush();
  }
  void flush() override {
    for (const Line& line : lines_) {
      for (std::size_t i = 0; i < line.size(); ++i) {
        needed_[i] = std::max(needed_[i], tools::charactersOf(line[i]));
      }
    }
    const std::size_t widest = widestColumn();
    for (const Line& line : lines_) write(line, widest);
    lines_.clear();
    bytes_ = 0;
  }
  void end() override {
    flush();
    if (isTitled_) out_ << '(' << count_ << (count_ == 1 ? " row)\n\n" : " rows)\n\n");
  }

 private:
  using Line = std::vector<std::string>;

  std::string shown(const Cell& cell) const {
    if (!width_) return tools::printable(textOf(cell));
    return tools::printable(textOf(cell, 4 * (*width_ + 1)), *width_);  // 4 bytes a character
  }

  /// The width to which columns are cut, so that a line fits.
  std::size_t widestColumn() const {
    if (!width_) return kMaxAligned;
    const auto lineOf = [&](std::size_t widest) {
      std::size_t sum = 0;
      for (const std::size_t each : needed_) sum += std::min(each, widest) + kBetween;
      return sum - kBetween;
    };
    std::size_t widest = *width_;
    while (widest > kMinColumn && lineOf(widest) > *width_) --widest;
    return widest;
  }

  void write(const Line& line, std::size_t widest) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      const std::string cell = width_ ? tools::printable(line[i], widest) : line[i];
      const std::size_t column = std::min(needed_[i], widest), used = tools::charactersOf(cell);
      const std::string padding(column > used ? column - used : 0, ' ');
      if (i > 0) out_ << std::string(kBetween, ' ');
      if (areNumbers_[i]) out_ << padding;
      out_ << cell;
      if (!areNumbers_[i] && i + 1 < line.size()) out_ << padding;
    }
    out_ << '\n';
  }

  std::ostream& out_;
  const std::optional<std::size_t> width_;  // of a line; absent where nothing is cut
  bool isTitled_ = false;
  std::size_t count_ = 0;
  std::vector<std::size_t> needed_;  // characters, by column
  std::vector<bool> areNumbers_;     // the columns set to the right
  std::vector<Line> lines_;          // not yet written
  std::size_t bytes_ = 0;            // of these
};

class ObjectLines : public Sheet {
 public:
  explicit ObjectLines(std::ostream& out) : out_(out) {}

  void begin(std::string_view title, std::vector<std::string_view> columns) override {
    title_ = title;
    columns_ = std::move(columns);
  }
  void add(const Row& row) override {
    out_ << tools::jsonText([&](tools::JsonWriter& writer) {
      writer.StartObject();
      if (!title_.empty()) tools::member(writer, "Table", title_);
      for (std::size_t i = 0; i < row.size(); ++i) {
        tools::put(writer, columns_[i]);
        putValue(writer, row[i]);
      }
      writer.EndObject();
    }) << '\n';
  }
  void end() override {}

 private:
  static void putValue(tools::JsonWriter& writer, const Cell& value) {
    if (isNone(value)) {
      writer.Null();
    } else if (const auto* number = std::get_if<std::int64_t>(&value)) {
      writer.Int64(*number);
    } else {
      tools::put(writer, tools::asUtf8(std::get<std::string>(value)));
    }
  }

  std::ostream& out_;
  std::string title_;
  std::vector<std::string_view> columns_;
};

class CommaLines : public Sheet {
 public:
  explicit CommaLines(std::ostream& out) : out_(out) {}

  void begin(std::string_view /*title*/, std::vector<std::string_view> columns) override {
    for (std::size_t i = 0; i < columns.size(); ++i) out_ << (i > 0 ? "," : "") << columns[i];
    out_ << '\n';
  }
  void add(const Row& row) override {
    std::string line;
    for (const Cell& cell : row) {
      if (std::holds_alternative<std::string>(cell)) {
        tools::appendCsvField(line, tools::asUtf8(std::get<std::string>(cell)));
      } else {
        line.append(&cell == row.data() ? "" : ",").append(isNone(cell) ? "" : textOf(cell));
      }
    }
    out_ << line << '\n';
  }
  void end() override {}

 private:
  std::ostream& out_;
};

}  // namespace

std::unique_ptr<Sheet> makeSheet(Format format, std::ostream& out) {
  switch (format) {
    case Format::ndjson:
      return std::make_unique<ObjectLines>(out);
    case Format::csv:
      return std::make_unique<CommaLines>(out);
    case Format::table:
      break;
  }
  return std::make_unique<AlignedTable>(out, tools::terminalWidth());
}

}  // namespace inspect
