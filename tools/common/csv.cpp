#include "tools/common/csv.h"

#include <charconv>

namespace tools {
namespace {

bool isNumber(std::string_view text) {
  double number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  return read.ec == std::errc() && read.ptr == text.data() + text.size();
}

bool isFormula(std::string_view text) {
  constexpr std::string_view kStarts = "=+-@\t\r";
  return !text.empty() && kStarts.find(text[0]) != kStarts.npos && !isNumber(text);
}

}  // namespace

void appendCsvField(std::string& line, std::string_view text) {
  if (!line.empty()) line += ',';
  line += '"';
  if (isFormula(text)) line += '\'';
  for (const char each : text) line.append(each == '"' ? 2 : 1, each);
  line += '"';
}

}  // namespace tools
