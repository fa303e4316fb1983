#include "tools/collector/csv.h"

#include <charconv>
#include <string_view>

namespace collector {
namespace {

constexpr std::string_view kHead =
    "n,received,table,name,session,user,device,token,time,lagMs,state,batch,times";

bool isNumber(std::string_view text) {
  double number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  return read.ec == std::errc() && read.ptr == text.data() + text.size();
}

bool isFormula(std::string_view text) {
  constexpr std::string_view kStarts = "=+-@\t\r";
  return !text.empty() && kStarts.find(text[0]) != kStarts.npos && !isNumber(text);
}

void addCell(std::string& line, std::string_view text) {
  if (!line.empty()) line += ',';
  line += '"';
  if (isFormula(text)) line += '\'';
  for (const char each : text) line.append(each == '"' ? 2 : 1, each);
  line += '"';
}

std::string textsOf(const Row& row) {
  return jsonText([&](JsonWriter& writer) {
    writer.StartObject();
    for (std::size_t i = 0; i < row.texts.size(); ++i) {
      member(writer, row.kind->keys()[i], row.texts[i]);
    }
    writer.EndObject();
  });
}

}  // namespace

std::string csvHead(const Kind* kind) {
  std::string line(kHead);
  if (kind == nullptr) return line + ",fields\r\n";
  for (const std::string_view key : kind->keys()) line.append(",").append(key);
  return line + "\r\n";
}

std::string csvLine(const Row& row, bool inColumns) {
  std::string line;
  for (const std::string& text :
       {std::to_string(row.n), isoTime(row.received), std::string(row.kind->name()), row.name(),
        row.session, row.user, row.device, row.token, row.time(),
        row.lag ? std::to_string(*row.lag) : std::string(), row.state, std::to_string(row.batch),
        std::to_string(row.times)}) {
    addCell(line, text);
  }
  if (!inColumns) {
    addCell(line, textsOf(row));
  } else {
    for (const std::string& text : row.texts) addCell(line, text);
  }
  return line + "\r\n";
}

}  // namespace collector
