#include "tools/inspect/sheet.h"

#include <algorithm>
#include <utility>

#include "tools/common/csv.h"
#include "tools/common/json_text.h"
#include "tools/common/text.h"

namespace inspect {
namespace {

constexpr std::size_t kMaxCellWidth = 48;  // characters
constexpr std::size_t kAlignedRows = 200;  // define the columns' widths

bool isNone(const Cell& cell) { return std::holds_alternative<std::monostate>(cell); }

/// The text of a cell that holds something; of a text its first `maxBytes` bytes.
std::string textOf(const Cell& cell, std::size_t maxBytes = std::string::npos) {
  const auto* number = std::get_if<std::int64_t>(&cell);
  return number != nullptr ? std::to_string(*number)
                           : std::get<std::string>(cell).substr(0, maxBytes);
}

class AlignedTable : public Sheet {
 public:
  explicit AlignedTable(std::ostream& out) : out_(out) {}

  void begin(std::string_view title, std::vector<std::string_view> columns) override {
    isTitled_ = !title.empty();
    if (isTitled_) out_ << title << '\n';
    count_ = 0;
    widths_.assign(columns.size(), 0);
    areNumbers_.assign(columns.size(), false);
    lines_.assign({Line(columns.begin(), columns.end())});
  }
  void add(const Row& row) override {
    // More bytes than these make no more characters.
    constexpr std::size_t kMaxBytes = 4 * (kMaxCellWidth + 1);
    Line line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      areNumbers_[i] = std::holds_alternative<std::int64_t>(row[i]);
      line.push_back(isNone(row[i]) ? "-"
                                    : tools::printable(textOf(row[i], kMaxBytes), kMaxCellWidth));
    }
    ++count_;
    lines_.push_back(std::move(line));
    if (lines_.size() > kAlignedRows) flush();
  }
  void end() override {
    flush();
    if (isTitled_) out_ << '(' << count_ << (count_ == 1 ? " row)\n\n" : " rows)\n\n");
  }

 private:
  using Line = std::vector<std::string>;

  void flush() {
    for (const Line& line : lines_) {
      for (std::size_t i = 0; i < line.size(); ++i) {
        widths_[i] = std::max(widths_[i], tools::charactersOf(line[i]));
      }
    }
    for (const Line& line : lines_) write(line);
    lines_.clear();
  }

  void write(const Line& line) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      const std::string padding(widths_[i] - tools::charactersOf(line[i]), ' ');
      if (i > 0) out_ << "  ";
      if (areNumbers_[i]) out_ << padding;
      out_ << line[i];
      if (!areNumbers_[i] && i + 1 < line.size()) out_ << padding;
    }
    out_ << '\n';
  }

  std::ostream& out_;
  bool isTitled_ = false;
  std::size_t count_ = 0;
  std::vector<std::size_t> widths_;
  std::vector<bool> areNumbers_;  // the columns set to the right
  std::vector<Line> lines_;       // not yet written
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
  return std::make_unique<AlignedTable>(out);
}

}  // namespace inspect
