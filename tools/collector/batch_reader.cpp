#include "tools/collector/batch_reader.h"

#include <charconv>
#include <chrono>
#include <cstdint>

#include "tools/collector/json_members.h"

namespace collector {
namespace {

constexpr std::array<std::string_view, 1> kTopKeys{"BatchData"};
constexpr auto kKindNames = [] {
  std::array<std::string_view, kKinds.size()> names;
  std::transform(kKinds.begin(), kKinds.end(), names.begin(),
                 [](auto& kind) { return kind.name(); });
  return names;
}();

/// A device numbers its rows with 32 bits, and writes the number without sign or zeros in front.
bool isId(std::string_view text) {
  std::int32_t id = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
  return error == std::errc() && end == text.data() + text.size() && std::to_string(id) == text;
}

/// yyyy-MM-dd HH:mm:ss.SSS, a real date and time of day; or nothing at all.
bool isTimeStamp(std::string_view text) {
  constexpr std::string_view kForm = "0000-00-00 00:00:00.000";
  if (text.empty()) return true;
  if (text.size() != kForm.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isDigit = text[i] >= '0' && text[i] <= '9';
    if (kForm[i] == '0' ? !isDigit : text[i] != kForm[i]) return false;
  }
  const auto number = [&](std::size_t at, std::size_t digits) {
    unsigned value = 0;
    std::from_chars(&text[at], &text[at] + digits, value);
    return value;
  };
  const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(number(0, 4))),
                                         std::chrono::month(number(5, 2)),
                                         std::chrono::day(number(8, 2))};
  return date.ok() && number(11, 2) < 24 && number(14, 2) < 60 && number(17, 2) < 60;
}

/// Whether an escape stands for half of a surrogate pair, which is not UTF-8: the reader checks the
/// bytes that were sent, but accepts a lone "\udc00".
bool holdsLoneSurrogate(std::string_view text) {
  for (auto at = text.find('\xED'); at != text.npos; at = text.find('\xED', at + 1)) {
    if (static_cast<unsigned char>(text[at + 1]) >= 0xA0) return true;
  }
  return false;
}

/// Follows the reader through a batch document, level by level.
class BatchHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, BatchHandler> {
 public:
  explicit BatchHandler(const RowSink& sink) : sink_(sink) {}

  bool StartObject() {
    if (level_ == document) return enter(top, kTopKeys);
    if (level_ == top) return enter(data, kKindNames);
    if (level_ == rows) return enter(row, kind().keys());
    misplaced();
  }

  bool StartArray() {
    if (level_ == data) return enter(rows, {});
    misplaced();
  }

  bool Key(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    open_[level_].at =
        open_[level_].members.admit({text, length}, [this] { return place(level_ - 1); });
    return true;
  }

  bool String(const char* start, rapidjson::SizeType length, bool /*copy*/) {
    if (level_ != row) misplaced();
    const std::string_view text(start, length);
    const std::size_t column = open_[row].at;
    if (holdsLoneSurrogate(text)) refuse("half of a surrogate pair");
    if (column == 0 && !isId(text)) refuse(inQuotes(text) + " is not an id");
    if (column + 1 == kind().keys().size() && !isTimeStamp(text)) {
      refuse(inQuotes(text) + " is not a time of the form yyyy-MM-dd HH:mm:ss.SSS");
    }
    texts_[column] = text;
    return true;
  }

  bool EndObject(rapidjson::SizeType /*count*/) {
    open_[level_].members.requireAll([this] { return place(level_ - 1); });
    if (level_ == row) {
      sink_(kind(), {texts_.data(), kind().keys().size()});
      ++open_[rows].at;
    }
    return leave();
  }

  bool EndArray(rapidjson::SizeType /*count*/) { return leave(); }

  /// Every value that is neither text nor the start of an object or of an array.
  bool Default() { misplaced(); }

 private:
  /// What the reader is inside of, each within the one before.
  enum Level : std::size_t { document, top, data, rows, row };

  struct Open {
    Members members;     // of an object
    std::size_t at = 0;  // the position of its key just read; in an array, the rows before this one
  };

  const Kind& kind() const { return kKinds[open_[data].at]; }

  bool enter(Level level, std::span<const std::string_view> keys) {
    level_ = level;
    open_[level] = {.members = Members(keys)};
    return true;
  }

  bool leave() {
    level_ = static_cast<Level>(level_ - 1);
    return true;
  }

  /// The name of the value that is open inside `level`.
  std::string place(std::size_t level) const {
    if (level == document) return "document";
    if (level == top) return std::string(kTopKeys[0]);
    std::string name(kind().name());
    if (level >= rows) name.append("[").append(std::to_string(open_[rows].at)).append("]");
    if (level == row) name.append(".").append(kind().keys()[open_[row].at]);
    return name;
  }

  [[noreturn]] void refuse(const std::string& fault) const {
    throw Refusal(400, place(level_) + ": " + fault);
  }

  [[noreturn]] void misplaced() const {
    if (level_ == row) refuse("not text");
    refuse(level_ == data ? "not an array" : "not an object");
  }

  const RowSink& sink_;
  Level level_ = document;
  std::array<Open, row + 1> open_;
  std::array<std::string_view, 17> texts_;  // of the row being read
};

}  // namespace

void readBatch(std::string& document, const RowSink& sink) {
  BatchHandler handler(sink);
  rapidjson::InsituStringStream stream(document.data());
  rapidjson::Reader reader;
  const auto result = reader.Parse<kStrictReading>(stream, handler);
  requireJson(result, stream.Tell(), document.size());
}

}  // namespace collector
