#include "tools/inspect/sheet.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "Marbleway/platform/utf8.h"
#include "Marbleway/platform/escape.h"

namespace inspect {
namespace {

constexpr std::size_t kWidest = 48;        // characters of a cell in a table
constexpr std::size_t kAlignedRows = 200;  // are looked at before the first is written

bool isNone(const Cell& cell) { return std::holds_alternative<std::monostate>(cell); }

/// The text of a cell that holds something; of a text its first `most` bytes.
std::string textOf(const Cell& cell, std::size_t most = std::string::npos) {
  const auto* number = std::get_if<std::int64_t>(&cell);
  return number != nullptr ? std::to_string(*number) : std::get<std::string>(cell).substr(0, most);
}

/// The code point of a valid sequence.
char32_t codePointOf(std::string_view sequence) {
  const auto lead = static_cast<unsigned char>(sequence[0]);
  if (sequence.size() == 1) return lead;
  char32_t code = lead & (0x7FU >> sequence.size());
  for (const char next : sequence.substr(1)) {
    code = (code << 6U) | (static_cast<unsigned char>(next) & 0x3FU);
  }
  return code;
}

/// Control characters, line separators, and what turns the direction of text around.
bool controlsTerminals(char32_t code) {
  constexpr std::pair<char32_t, char32_t> kRanges[] = {
      {0x00, 0x1F},     {0x7F, 0x9F},     {0x200B, 0x200F},  {0x2028, 0x202E},
      {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xE0000, 0xE007F}};
  return std::ranges::any_of(
      kRanges, [&](auto range) { return code >= range.first && code <= range.second; });
}

std::string spelledOut(char32_t code) {
  if (code == U'\n') return "\\n";
  if (code == U'\t') return "\\t";
  std::array<char, 8> digits{};
  const char* const end =
      std::to_chars(digits.data(), digits.data() + digits.size(), std::uint32_t{code}, 16).ptr;
  const std::string hex(static_cast<const char*>(digits.data()), end);
  return std::string("\\u").append(hex.size() < 4 ? 4 - hex.size() : 0, '0').append(hex);
}

/// True for the first byte of a character.
bool isFirstByte(char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80; }

std::size_t charactersOf(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(text, isFirstByte));
}

/// The first characters of `text`, with a mark of what is missing.
std::string cut(const std::string& text) {
  if (charactersOf(text) <= kWidest) return text;
  std::size_t characters = 0;
  const auto end = std::ranges::find_if(
      text, [&](char c) { return isFirstByte(c) && ++characters > kWidest - 3; });
  return std::string(text.begin(), end).append("...");
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
    constexpr std::size_t kMaxBytes = 4 * (kWidest + 1);
    Line line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      areNumbers_[i] = std::holds_alternative<std::int64_t>(row[i]);
      line.push_back(isNone(row[i]) ? "-" : cut(printable(textOf(row[i], kMaxBytes))));
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
        widths_[i] = std::max(widths_[i], charactersOf(line[i]));
      }
    }
    for (const Line& line : lines_) write(line);
    lines_.clear();
  }

  void write(const Line& line) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      const std::string padding(widths_[i] - charactersOf(line[i]), ' ');
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
    marbleway::platform::Buffer line;
    const auto addMember = [&](std::string_view name, const Cell& value) {
      line.append(line.size() == 0 ? "{\"" : ",\"");
      line.append(name);
      line.append("\":");
      addValue(line, value);
    };
    if (!title_.empty()) addMember("Table", title_);
    for (std::size_t i = 0; i < row.size(); ++i) addMember(columns_[i], row[i]);
    line.append("}\n");
    out_ << line.view();
  }
  void end() override {}

 private:
  static void addValue(marbleway::platform::Buffer& line, const Cell& value) {
    if (isNone(value)) return line.append("null");
    if (std::holds_alternative<std::int64_t>(value)) return line.append(textOf(value));
    line.append("\"");
    marbleway::appendEscaped(line, std::get<std::string>(value));
    line.append("\"");
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
    for (std::size_t i = 0; i < row.size(); ++i) {
      out_ << (i > 0 ? "," : "");
      if (!isNone(row[i])) out_ << quoted(marbleway::repaired(textOf(row[i])));
    }
    out_ << '\n';
  }
  void end() override {}

 private:
  static std::string quoted(const std::string& text) {
    const bool isPlain = !text.empty() && text.find_first_of("\",\r\n") == std::string::npos &&
                         text.front() != ' ' && text.back() != ' ';
    if (isPlain) return text;
    std::string quoted = "\"";
    for (const char c : text) quoted.append(c == '"' ? 2 : 1, c);
    return quoted.append("\"");
  }

  std::ostream& out_;
};

}  // namespace

std::string printable(std::string_view text) {
  const std::string whole = marbleway::repaired(text);
  std::string line;
  for (std::size_t at = 0; at < whole.size();) {
    const std::size_t size = marbleway::sequenceLength(whole.data() + at, whole.size() - at);
    const std::string_view sequence = std::string_view(whole).substr(at, size);
    const char32_t code = codePointOf(sequence);
    line.append(controlsTerminals(code) ? spelledOut(code) : sequence);
    at += size;
  }
  return line;
}

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
